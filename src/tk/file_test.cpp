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
};

TEST_F(FileTest, ReadsAWholeFileUpToTheLimit) {
    folder.write("file", std::string(100000, 'x'));
    const Result<std::string> content = readFile(folder.file("file"), 100000);
    ASSERT_TRUE(content.isOk());
    EXPECT_EQ(*content, std::string(100000, 'x'));
    EXPECT_EQ(readFile(folder.file("file"), 99999).status(), Status::ofErrno(folder.file("file"), EFBIG));
}

TEST_F(FileTest, ReadsRegularFilesOnly) {
    EXPECT_EQ(readFile(folder.path, 100).status(), Status::ofErrno(folder.path, EINVAL));
    ASSERT_EQ(::mkfifo(folder.file("pipe").c_str(), 0600), 0);
    // It does not wait for a writer, either.
    EXPECT_EQ(readFile(folder.file("pipe"), 100).status(), Status::ofErrno(folder.file("pipe"), EINVAL));
    EXPECT_EQ(readFile(folder.file("none"), 100).status(), Status::ofErrno(folder.file("none"), ENOENT));
}

TEST_F(FileTest, ReadsTheFileThatWasOpenedAndNotItsSuccessor) {
    folder.write("file", "opened");
    const Fd file = openToRead(folder.file("file"));
    folder.write("other", "successor");
    std::filesystem::rename(folder.file("other"), folder.file("file"));
    const Result<std::string> content = readFile(file, 100);
    ASSERT_TRUE(content.isOk());
    EXPECT_EQ(*content, "opened");
    EXPECT_FALSE(openToRead(folder.file("none")).isOpen());
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(FileTest, WritesANewFileForItsOwnerAlone) {
    ASSERT_TRUE(writeSynced(folder.file("file"), "content").isOk());
    EXPECT_EQ(folder.read("file"), "content");
    struct stat status {};
    ASSERT_EQ(::stat(folder.file("file").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(FileTest, NeverWritesThroughALink) {
    folder.write("victim", "precious");
    std::filesystem::create_symlink(folder.file("victim"), folder.file("file"));
    ASSERT_TRUE(writeSynced(folder.file("file"), "content").isOk());
    EXPECT_EQ(folder.read("victim"), "precious");
    EXPECT_FALSE(std::filesystem::is_symlink(folder.file("file")));
    EXPECT_EQ(folder.read("file"), "content");
}

TEST_F(FileTest, MakesAFolderThatIsMissingButNotTwo) {
    EXPECT_TRUE(writeSynced(folder.file("sub/file"), "content").isOk());
    EXPECT_EQ(folder.read("sub/file"), "content");
    EXPECT_EQ(writeSynced(folder.file("one/two/file"), "content"),
              Status::ofErrno(folder.file("one/two/file"), ENOENT));
}

TEST_F(FileTest, ReplacesAFileWhole) {
    folder.write("from", "new");
    folder.write("to", "old");
    ASSERT_TRUE(replaceSynced(folder.file("from"), folder.file("to")).isOk());
    EXPECT_EQ(folder.read("to"), "new");
    EXPECT_FALSE(folder.has("from"));
}

TEST_F(FileTest, RenamesNeverOntoAnotherFile) {
    folder.write("from", "new");
    folder.write("to", "old");
    EXPECT_EQ(renameToFree(folder.file("from"), folder.file("to")),
              Status::ofErrno(folder.file("to"), EEXIST));
    EXPECT_EQ(folder.read("to"), "old");
    EXPECT_TRUE(renameToFree(folder.file("from"), folder.file("free")).isOk());
    EXPECT_EQ(folder.read("free"), "new");
}

}  // namespace
}  // namespace tk
