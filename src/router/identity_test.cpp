#include "router/identity.h"

#include <filesystem>

#include <gtest/gtest.h>

#include "tk/testing/folder.h"

namespace router {
namespace {

constexpr const char* machineId = "0123456789abcdef0123456789abcdef\n";

class IdentityTest : public ::testing::Test {
protected:
    std::string digits() const { return Identity(files.file("machine-id"), files.file("identity")).digits(); }
    tk::testing::Folder files;
};

TEST_F(IdentityTest, IsDerivedFromTheMachineAndDoesNotShowIt) {
    files.write("machine-id", machineId);
    const std::string first = digits();
    EXPECT_EQ(first, digits());
    EXPECT_EQ(first.size(), 32U);
    EXPECT_EQ(first.find_first_not_of("0123456789abcdef"), std::string::npos);
    EXPECT_NE(first + "\n", machineId);
    files.write("machine-id", "1123456789abcdef0123456789abcdef\n");
    EXPECT_NE(digits(), first);
    EXPECT_FALSE(std::filesystem::exists(files.file("identity")));
}

TEST_F(IdentityTest, NeverChanges) {
    files.write("machine-id", machineId);
    // Computed once with another tool: HMAC-SHA-256 with the machine's id as the key.
    EXPECT_EQ(digits(), "046d544ff360ac1c48f172fd517b7b1e");
}

TEST_F(IdentityTest, IsStoredWhereTheMachineHasNoId) {
    for (const char* content : {"uninitialized\n", "", "0123\n"}) {
        files.write("machine-id", content);
        const std::string first = digits();
        EXPECT_EQ(first.size(), 32U);
        EXPECT_EQ(first, digits());
    }
    const std::string first = digits();
    std::filesystem::remove(files.file("identity"));
    EXPECT_NE(digits(), first);
}

TEST_F(IdentityTest, IsAnsweredInFieldOne) {
    files.write("machine-id", machineId);
    Identity identity(files.file("machine-id"), files.file("identity"));
    EXPECT_EQ(identity.cmdGet({}).get_string(1), identity.digits());
}

}  // namespace
}  // namespace router
