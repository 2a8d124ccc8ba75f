#include "resolver/filestamps.h"

#include <unistd.h>

#include <cstdio>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace resolver {
namespace {

class FileStampsTest : public ::testing::Test {
protected:
    FileStampsTest() { folder.write("hosts", "one"); }

    tk::testing::Folder folder;
};

TEST_F(FileStampsTest, UntouchedFilesHaveNotChanged) {
    FileStamps stamps({folder.file("hosts"), folder.file("absent")});
    EXPECT_FALSE(stamps.changed());
    EXPECT_FALSE(stamps.changed());
}

TEST_F(FileStampsTest, AChangeIsSeenOnce) {
    FileStamps stamps({folder.file("hosts")});
    folder.write("hosts", "one and two");
    EXPECT_TRUE(stamps.changed());
    EXPECT_FALSE(stamps.changed());
}

TEST_F(FileStampsTest, AFileThatComesOrGoesHasChanged) {
    FileStamps stamps({folder.file("hosts"), folder.file("absent")});
    folder.write("absent", "");
    EXPECT_TRUE(stamps.changed());
    ASSERT_EQ(::unlink(folder.file("hosts").c_str()), 0);
    EXPECT_TRUE(stamps.changed());
    EXPECT_FALSE(stamps.changed());
}

TEST_F(FileStampsTest, AFileThatIsReplacedByOneOfItsLengthHasChanged) {
    FileStamps stamps({folder.file("hosts")});
    folder.write("new", "two");
    ASSERT_EQ(std::rename(folder.file("new").c_str(), folder.file("hosts").c_str()), 0);
    EXPECT_TRUE(stamps.changed());
}

}  // namespace
}  // namespace resolver
