#include "tk/file.h"

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace tk {
namespace {

class FileTest : public ::testing::Test {
protected:
    tk::testing::Folder folder;
    std::string content;
};

TEST_F(FileTest, ReadsAWholeFileUpToTheLimit) {
    folder.write("file", std::string(100000, 'x'));
    EXPECT_TRUE(readFile(folder.file("file"), 100000, content));
    EXPECT_EQ(content, std::string(100000, 'x'));
    EXPECT_FALSE(readFile(folder.file("file"), 99999, content));
    EXPECT_EQ(errno, EFBIG);
}

TEST_F(FileTest, ReadsRegularFilesOnly) {
    EXPECT_FALSE(readFile(folder.path, 100, content));
    EXPECT_EQ(errno, EINVAL);
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    EXPECT_FALSE(readFile(folder.file("pipe"), 100, content));  // and does not wait for a writer
    EXPECT_EQ(errno, EINVAL);
    EXPECT_FALSE(readFile(folder.file("none"), 100, content));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, ReadsTheFileThatWasOpenedAndNotItsSuccessor) {
    folder.write("file", "opened");
    const Fd file = openToRead(folder.file("file"));
    folder.write("other", "successor");
    std::filesystem::rename(folder.file("other"), folder.file("file"));
    EXPECT_TRUE(readFile(file, 100, content));
    EXPECT_EQ(content, "opened");
    EXPECT_FALSE(openToRead(folder.file("none")).isOpen());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, WritesANewFileForItsOwnerAlone) {
    ASSERT_TRUE(writeSynced(folder.file("file"), "content"));
    EXPECT_EQ(folder.read("file"), "content");
    struct stat status {};
    ASSERT_EQ(::stat(folder.file("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(FileTest, NeverWritesThroughALink) {
    folder.write("victim", "precious");
    std::filesystem::create_symlink(folder.file("victim"), folder.file("file"));
    ASSERT_TRUE(writeSynced(folder.file("file"), "content"));
    EXPECT_EQ(folder.read("victim"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(folder.file("file")));
    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(FileTest, MakesAFolderThatIsMissingButNotTwo) {
    EXPECT_TRUE(writeSynced(folder.file("sub/file"), "content"));
    EXPECT_EQ(folder.read("sub/file"), "content");
    EXPECT_FALSE(writeSynced(folder.file("one/two/file"), "content"));
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, ReplacesAFileWhole) {
    folder.write("from", "new");
    folder.write("to", "old");
    ASSERT_TRUE(replaceSynced(folder.file("from"), folder.file("to")));
    EXPECT_EQ(folder.read("to"), "new");
    EXPECT_FALSE(folder.has("from"));
}

TEST_F(FileTest, RenamesNeverOntoAnotherFile) {
    folder.write("from", "new");
    folder.write("to", "old");
    EXPECT_FALSE(renameToFree(folder.file("from"), folder.file("to")));
    EXPECT_EQ(errno, EEXIST);
    EXPECT_EQ(folder.read("to"), "old");
    EXPECT_TRUE(renameToFree(folder.file("from"), folder.file("free")));
    EXPECT_EQ(folder.read("free"), "new");
}

}  // namespace
}  // namespace tk
