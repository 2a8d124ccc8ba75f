#include "hub/processes.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

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

TEST(OwnProcesses, StartsNothingWithoutACommand) {
    EXPECT_EQ(OwnProcesses().start({80, {}}).reason(), "there is no command that starts it");
}

class PullTrigger : public ::testing::Test {
protected:
    static mode_t modeOf(const std::string& path) {
        struct stat status {};
        EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
        return status.st_mode;
    }

    const tk::testing::Folder folder;
    const std::string place = folder.file("start");
    const std::string trigger = place + "/upnpd";
};

TEST_F(PullTrigger, MakesTheFolderAndTheFileForEverybodyToWatch) {
    const mode_t mask = ::umask(0077);
    EXPECT_EQ(pullTrigger(trigger).reason(), "");
    EXPECT_EQ(::umask(mask), 0077U);
    EXPECT_EQ(modeOf(place), S_IFDIR | 0755U);
    EXPECT_EQ(modeOf(trigger), S_IFREG | 0644U);
    EXPECT_EQ(folder.read("start/upnpd"), "start\n");
}

TEST_F(PullTrigger, WritesAnewEachTime) {
    for (const char* former : {"", "start\n"}) {
        folder.write("upnpd", former);
        EXPECT_EQ(pullTrigger(folder.file("upnpd")).reason(), "");
        EXPECT_EQ(folder.read("upnpd"), "start\n");
    }
}

TEST_F(PullTrigger, LeavesAFileAsItIsThatIsNone) {
    const std::string reason =
        folder.file("upnpd") + ": this file is no trigger, so it stays as it is: remove it, or name another";
    folder.write("upnpd", "a program");
    EXPECT_EQ(pullTrigger(folder.file("upnpd")).reason(), reason);
    EXPECT_EQ(folder.read("upnpd"), "a program");
    folder.write("upnpd", "");
    ASSERT_EQ(::link(folder.file("upnpd").c_str(), folder.file("second").c_str()), 0);
    EXPECT_EQ(pullTrigger(folder.file("upnpd")).reason(), reason);
    EXPECT_EQ(folder.read("upnpd"), "");
}

TEST_F(PullTrigger, LeavesAFileOfAnotherUserAsItIs) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    folder.write("upnpd", "");
    ASSERT_EQ(::chown(folder.file("upnpd").c_str(), 64001, 0), 0);
    EXPECT_NE(pullTrigger(folder.file("upnpd")).reason(), "");
    EXPECT_EQ(folder.read("upnpd"), "");
}

TEST_F(PullTrigger, FollowsNoLink) {
    folder.write("other", "as it was");
    ASSERT_EQ(::symlink(folder.file("other").c_str(), folder.file("upnpd").c_str()), 0);
    EXPECT_EQ(pullTrigger(folder.file("upnpd")).reason(),
              folder.file("upnpd") + ": Too many levels of symbolic links");
    EXPECT_EQ(folder.read("other"), "as it was");
}

TEST_F(PullTrigger, WaitsForNoReader) {
    ASSERT_EQ(::mkfifo(folder.file("upnpd").c_str(), 0600), 0);
    EXPECT_EQ(pullTrigger(folder.file("upnpd")).reason(),
              folder.file("upnpd") + ": No such device or address");
}

TEST_F(PullTrigger, MakesOneFolderOnly) {
    EXPECT_EQ(pullTrigger(place + "/below/upnpd").reason(),
              place + "/below/upnpd: No such file or directory");
    EXPECT_FALSE(folder.has("start"));
}

}  // namespace
}  // namespace hub
