#include "machine/configuration.h"

#include <unistd.h>

#include <initializer_list>

#include <gtest/gtest.h>

namespace machine {
namespace {

std::string lineOf(std::initializer_list<std::string> arguments) {
    std::string line;
    for (const std::string& argument : arguments) line += argument + '\0';
    return line;
}

TEST(Configuration, IsTheUsualOneUnlessTheCommandLineNamesOne) {
    EXPECT_EQ(configurationIn(""), usualConfiguration);
    EXPECT_EQ(configurationIn(lineOf({"routerd"})), usualConfiguration);
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--configx=/a"})), usualConfiguration);
}

TEST(Configuration, IsTheLastOneThatTheCommandLineNames) {
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config", "/a b"})), "/a b");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config=/a"})), "/a");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--conf=/a"})), "/a");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config", "/a", "--config=/b"})), "/b");
}

TEST(Configuration, OfAProcessIsReadFromItsCommandLine) {
    const auto own = static_cast<std::uint32_t>(::getpid());
    EXPECT_EQ(configurationOf(own), usualConfiguration);
    EXPECT_EQ(configurationOf(0), usualConfiguration);
}

}  // namespace
}  // namespace machine
