#include "router/identity.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "tk/store.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace router {
namespace {

class IdentityTest : public ::testing::Test {
protected:
    std::string digits() const { return Identity(path).digits(); }

    tk::testing::Folder files;
    const std::string path = files.file("identity");
};

TEST_F(IdentityTest, Is32DigitsThatStayTheSame) {
    const std::string first = digits();
    EXPECT_EQ(first.size(), 32U);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_EQ(digits(), first);
    EXPECT_EQ(digits(), first);
}

TEST_F(IdentityTest, DiffersBetweenRouters) {
    const std::string first = digits();
    EXPECT_NE(Identity(files.file("other")).digits(), first);
    std::filesystem::remove(path);
    EXPECT_NE(digits(), first) << "one that lost its store is another router";
}

TEST_F(IdentityTest, IsTheStoredOne) {
    tk::Store store(path, 1);
    tk::message entry;
    entry.insert_string(1, "046d544ff360ac1c48f172fd517b7b1e");
    ASSERT_TRUE(store.set(0, entry).isOk());
    EXPECT_EQ(digits(), "046d544ff360ac1c48f172fd517b7b1e");
}

TEST_F(IdentityTest, SaysWhenItCannotBeKept) {
    files.write("plain", "no folder");
    const std::string below = files.file("plain/identity");
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(Identity(below).digits().size(), 32U);
    EXPECT_EQ(output.text(), "identity: it will change at the next start: " + below + ": Not a directory\n");
}

TEST_F(IdentityTest, IsAnsweredInFieldOne) {
    Identity identity(path);
    EXPECT_EQ(identity.cmdGet({}).get_string(1), identity.digits());
}

}  // namespace
}  // namespace router
