#include "router/configfile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace router {
namespace {

class ConfigFileTest : public ::testing::Test {
protected:
    void write(const std::string& text) {
        folder.write("router.toml", text);
        ASSERT_EQ(::chmod(path.c_str(), 0644), 0);
    }
    /// What reading the file first, and then again with another text, says.
    std::string changed(const std::string& before, const std::string& after) {
        write(before);
        const auto first = file.read();
        EXPECT_TRUE(first.isOk()) << first.reason();
        write(after);
        return file.readAgain().reason();
    }

    const tk::testing::Folder folder;
    const std::string path = folder.file("router.toml");
    ConfigFile file{path, false};
};

TEST_F(ConfigFileTest, IsReadAgainInTheSameWay) {
    write("[[program]]\nnumber = 80\ncommand = [\"/a\"]\n");
    const auto first = file.read();
    ASSERT_TRUE(first.isOk()) << first.reason();
    const auto again = file.readAgain();
    ASSERT_TRUE(again.isOk()) << again.reason();
    EXPECT_EQ(*first, *again);
    EXPECT_FALSE(file.givesUpRoot());
}

TEST_F(ConfigFileTest, OnlyOneThatMayBeAbsentIsEmptyWhenItIs) {
    EXPECT_EQ(file.read().reason(), path + ": No such file or directory");
    ConfigFile usual(path, true);
    for (const auto& read : {usual.read(), usual.readAgain()}) {
        ASSERT_TRUE(read.isOk()) << read.reason();
        EXPECT_TRUE(read->programs.empty());
    }
}

TEST_F(ConfigFileTest, ThatWasThereAndIsGoneIsNotEmpty) {
    ConfigFile usual(path, true);
    ASSERT_TRUE(usual.read().isOk());
    write("[nat\n");
    ASSERT_FALSE(usual.readAgain().isOk());
    for (int i = 0; i < 2; ++i) {
        (void)::unlink(path.c_str());
        EXPECT_EQ(usual.readAgain().reason(), path + ": it is gone");
    }
    write("[nat]\nlimit = 1\n");
    EXPECT_EQ(usual.readAgain().reason(), "");
}

TEST_F(ConfigFileTest, ProgramsOfTheRoutersUserStayThose) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    const std::string text = "[router]\nuser = \"nobody\"\n[[program]]\nnumber = 80\ncommand = [\"/a\"]\n";
    write(text);
    const auto first = file.read();
    ASSERT_TRUE(first.isOk()) << first.reason();
    EXPECT_TRUE(file.givesUpRoot());
    const auto again = file.readAgain();
    ASSERT_TRUE(again.isOk()) << again.reason();
    EXPECT_EQ(*first, *again);
    EXPECT_EQ(again->programs[0].user, *tk::findAccount("nobody"));
}

TEST_F(ConfigFileTest, TheRoutersUserCannotChange) {
    const std::string reason = path + ": user in [router] has changed: that needs a restart of routerd";
    const std::string nobody = "[router]\nuser = \"nobody\"\n";
    EXPECT_EQ(changed(nobody, ""), reason);
    EXPECT_EQ(changed(nobody, "[router]\nuser = \"daemon\"\n"), reason);
    EXPECT_EQ(changed("", nobody), reason);
    EXPECT_EQ(changed(nobody, nobody), "");
}

TEST_F(ConfigFileTest, OnlyItsFormerOwnerMayHaveWrittenIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    write("");
    ASSERT_TRUE(file.read().isOk());
    ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    ASSERT_EQ(::chown(path.c_str(), 64001, 0), 0);
    ASSERT_EQ(::seteuid(64001), 0);
    const auto again = file.readAgain();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(again.reason(), path + ": this file belongs to user 64001, so it is not followed");
}

TEST_F(ConfigFileTest, OfARouterThatRootDidNotStartNamesNobodyElse) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    write("[[program]]\nnumber = 80\ncommand = [\"/a\"]\nuser = \"nobody\"\n");
    ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    ASSERT_EQ(::seteuid(64001), 0);
    ConfigFile own(path, false);
    const auto read = own.read();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(read.reason(), path +
                                 ": program 80: user: only root can start it as nobody; give it a trigger in "
                                 "place of command and user");
}

TEST_F(ConfigFileTest, IsNoFolder) {
    write("");
    ASSERT_TRUE(file.read().isOk());
    ASSERT_EQ(::unlink(path.c_str()), 0);
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(file.readAgain().reason(), path + ": not a regular file");
}

TEST_F(ConfigFileTest, TellsWhoMustBeAbleToReadIt) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root";
    write("[router]\nuser = \"nobody\"\n");
    ASSERT_TRUE(file.read().isOk());
    ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    ASSERT_EQ(::seteuid(64001), 0);
    const auto again = file.readAgain();
    ASSERT_EQ(::seteuid(0), 0);
    EXPECT_EQ(again.reason(),
              path + ": Permission denied: routerd runs as user nobody, who must be able to read it");
}

}  // namespace
}  // namespace router
