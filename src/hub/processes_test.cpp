#include "hub/processes.h"

#include <unistd.h>

#include <gtest/gtest.h>

namespace hub {
namespace {

TEST(CommandOf, AUnitIsAskedForWithoutWaitingForIt) {
    const std::vector<std::string> words = commandOf({80, {}, false, {}, "upnpd.service"});
    ASSERT_EQ(words.size(), 4U);
    const char* usual = "/usr/bin/systemctl";
    EXPECT_EQ(words[0], ::access(usual, X_OK) == 0 ? usual : "/bin/systemctl");
    EXPECT_EQ(words[1], "start");
    EXPECT_EQ(words[2], "--no-block");
    EXPECT_EQ(words[3], "upnpd.service");
}

TEST(CommandOf, AnotherProgramHasItsOwn) {
    EXPECT_EQ(commandOf({80, {"/bin/echo", "one"}}), (std::vector<std::string>{"/bin/echo", "one"}));
}

}  // namespace
}  // namespace hub
