#include "machine/configuration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <initializer_list>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "tk/testing/folder.h"

namespace machine {
namespace {

std::string lineOf(std::initializer_list<std::string> arguments) {
    std::string line;
    for (const std::string& argument : arguments) line += argument + '\0';
    return line;
}

TEST(Configuration, IsTheUsualOneUnlessTheCommandLineNamesOne) {
    EXPECT_EQ(configurationIn(""), contract::usualConfiguration);
    EXPECT_EQ(configurationIn(lineOf({"routerd"})), contract::usualConfiguration);
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--configx=/a"})), contract::usualConfiguration);
}

TEST(Configuration, IsTheLastOneThatTheCommandLineNames) {
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config", "/a b"})), "/a b");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config=/a"})), "/a");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--conf=/a"})), "/a");
    EXPECT_EQ(configurationIn(lineOf({"routerd", "--config", "/a", "--config=/b"})), "/b");
}

TEST(Configuration, OfAProcessIsReadFromItsCommandLine) {
    const auto own = static_cast<std::uint32_t>(::getpid());
    EXPECT_EQ(configurationOf(own), contract::usualConfiguration);
    EXPECT_EQ(configurationOf(0), contract::usualConfiguration);
}

/// A program in the place of routerd, which tells what it was called with.
struct ConfigurationCheckTest : testing::Test {
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root can check as whoever starts routerd";
    }
    /// What comes of a check when the program ends with that status.
    ConfigurationCheck check(const std::string& file, int status) {
        folder.write("routerd", "#!/bin/sh\necho \"$*: no\"\necho more\nexit " + std::to_string(status));
        EXPECT_EQ(::chmod(program.c_str(), 0755), 0);
        const auto done = checkConfiguration(program, file);
        return done.isOk() ? *done : ConfigurationCheck{"", done.reason()};
    }
    tk::testing::Folder folder;
    const std::string program = folder.file("routerd");
};

TEST_F(ConfigurationCheckTest, TellsTheFirstLineOfARefusalAndHowToAskAgain) {
    const ConfigurationCheck refused = check("/a b", 1);
    EXPECT_EQ(refused.refusal, "--check --config /a b: no");
    EXPECT_TRUE(refused.command.ends_with(program + " --check --config /a b")) << refused.command;
}

TEST_F(ConfigurationCheckTest, TheUsualFileIsNotNamedAsItMayBeAbsent) {
    EXPECT_EQ(check(contract::usualConfiguration, 1).refusal, "--check: no");
}

TEST_F(ConfigurationCheckTest, NoOtherEndIsARefusal) {
    for (const int status : {0, 2, 127}) EXPECT_EQ(check("/a", status).refusal, "") << status;
}

TEST_F(ConfigurationCheckTest, AProgramThatCannotBeRunIsAFailure) {
    EXPECT_FALSE(checkConfiguration(folder.file("none"), "/a").isOk());
    EXPECT_EQ(*checkConfiguration("", "/a"), ConfigurationCheck());
}

}  // namespace
}  // namespace machine
