#include "tk/handover.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tk/file.h"

namespace tk {
namespace {

/// A folder of the test's own; giving something away takes root.
class HandOver : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
        std::string pattern = ::testing::TempDir() + "handoverXXXXXX";
        base = ::mkdtemp(pattern.data());
        account.uid = 64001;
        account.gid = 64000;
    }

    void write(const std::string& name) { ASSERT_TRUE(writeSynced(base + name, "content")); }

    uid_t ownerOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::lstat((base + name).c_str(), &status), 0) << name;
        return status.st_uid;
    }

    std::string base;
    Account account;
};

TEST_F(HandOver, MakesTheFolderThatIsAbsent) {
    ASSERT_TRUE(handOver(base + "/new", account));
    EXPECT_EQ(ownerOf("/new"), account.uid);
}

TEST_F(HandOver, MakesTheOneAboveItToo) {
    ASSERT_TRUE(handOver(base + "/new/store", account));
    EXPECT_EQ(ownerOf("/new/store"), account.uid);
    EXPECT_EQ(ownerOf("/new"), 0U);
}

TEST_F(HandOver, LetsEverybodyEnterAFolderThatItMade) {
    const mode_t before = ::umask(077);
    ASSERT_TRUE(handOver(base + "/new", account));
    (void)::umask(before);
    struct stat status {};
    ASSERT_EQ(::stat((base + "/new").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755U);
}

TEST_F(HandOver, GivesTheFilesInTheFolderToo) {
    write("/folder/nat");
    ASSERT_TRUE(handOver(base + "/folder", account));
    EXPECT_EQ(ownerOf("/folder"), account.uid);
    EXPECT_EQ(ownerOf("/folder/nat"), account.uid);
}

TEST_F(HandOver, LeavesAFileThatHasAnotherNameElsewhere) {
    write("/secret");
    write("/folder/nat");
    ASSERT_EQ(::link((base + "/secret").c_str(), (base + "/folder/trap").c_str()), 0);
    ASSERT_TRUE(handOver(base + "/folder", account));
    EXPECT_EQ(ownerOf("/secret"), 0U);
}

TEST_F(HandOver, FollowsNoLink) {
    write("/secret");
    write("/folder/nat");
    ASSERT_EQ(::symlink((base + "/secret").c_str(), (base + "/folder/trap").c_str()), 0);
    ASSERT_TRUE(handOver(base + "/folder", account));
    EXPECT_EQ(ownerOf("/secret"), 0U);

    ASSERT_EQ(::symlink(base.c_str(), (base + "/link").c_str()), 0);
    EXPECT_FALSE(handOver(base + "/link", account));
    EXPECT_EQ(ownerOf(""), 0U);
}

TEST_F(HandOver, FailsWhereTheFolderCannotBeMade) {
    EXPECT_FALSE(handOver(base + "/no/such/folder", account));
}

}  // namespace
}  // namespace tk
