#include "tk/checksum.h"

#include <gtest/gtest.h>

namespace tk {
namespace {

TEST(Checksum, IsTheCommonCrc32) {
    EXPECT_EQ(crc32(""), 0U);
    EXPECT_EQ(crc32("123456789"), 0xCBF43926U);
    EXPECT_EQ(crc32(std::string_view("\0\xFF", 2)), 0x6CDBFD72U);
}

}  // namespace
}  // namespace tk
