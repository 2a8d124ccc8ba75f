#include "net/serverstring.h"

#include <gtest/gtest.h>

#include "tk/platform.h"

namespace {

TEST(ServerString, HasNoBlankBetweenVersionAndProtocol) {
    EXPECT_EQ(serverString, "Quillnet/" + tk::getOSVersion() + "UPnP/1.0 Vantorel UPnP/1.0");
}

TEST(ServerString, LinesEndInCarriageReturnAndLineFeed) {
    EXPECT_EQ(crlf, "\x0d\x0a");
}

}  // namespace
