// Which file is read and followed.

#include "router/config.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace router {
namespace {

TEST(ReadConfig, TellsWhyTheFileCannotBeOpened) {
    EXPECT_EQ(readConfig("/nonexistent/router.toml", ::geteuid()).reason(),
              "/nonexistent/router.toml: No such file or directory");
}

/// A file whose mode or owner is changed.
class DistrustedConfig : public ::testing::Test {
protected:
    DistrustedConfig() { folder.write("router.toml", "[nat]\nlimit = 5\n"); }
    tk::Result<Config> read(mode_t mode) {
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return readConfig(path, ::geteuid());
    }
    void give(uid_t user, gid_t group) { EXPECT_EQ(::chown(path.c_str(), user, group), 0); }

    const tk::testing::Folder folder;
    const std::string path = folder.file("router.toml");
};

TEST_F(DistrustedConfig, AFileThatItsOwnerAloneMayWriteIsFollowed) {
    const auto config = read(0644);
    ASSERT_TRUE(config.isOk()) << config.reason();
    EXPECT_EQ(config->nat.limit, 5U);
}

TEST_F(DistrustedConfig, AFileThatEverybodyMayWriteIsRefused) {
    EXPECT_EQ(read(0646).reason(), path + ": everybody may write this file, so it is not followed");
}

TEST_F(DistrustedConfig, AFileThatAGroupMayWriteIsRefusedUnlessItIsRoots) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    give(0, 64000);
    EXPECT_EQ(read(0664).reason(), path + ": group 64000 may write this file, so it is not followed");
    EXPECT_EQ(read(0644).reason(), "");
    give(0, 0);
    EXPECT_EQ(read(0664).reason(), "");
}

TEST_F(DistrustedConfig, AFileOfAnotherUserIsRefused) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    give(64001, 0);
    EXPECT_EQ(read(0600).reason(), path + ": this file belongs to user 64001, so it is not followed");
}

TEST_F(DistrustedConfig, AFileOfRootsOrOfWhoeverRunsTheRouterIsFollowed) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    const auto faultAs = [this](uid_t user) {
        EXPECT_EQ(::seteuid(user), 0);
        const auto config = readConfig(path, ::geteuid());
        EXPECT_EQ(::seteuid(0), 0);
        return config.reason();
    };
    EXPECT_EQ(faultAs(64001), "") << "it is root's";
    give(64001, 64001);
    EXPECT_EQ(faultAs(64001), "");
    EXPECT_EQ(faultAs(64002), path + ": this file belongs to user 64001, so it is not followed");
}

}  // namespace
}  // namespace router
