#include "router/interfaceids.h"

#include <filesystem>
#include <memory>
#include <set>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace router {
namespace {

TEST(InterfaceIds, GoFromOneUpAndStayWithTheirNames) {
    const tk::testing::Folder files;
    InterfaceIds ids(files.file("interfaces"));
    EXPECT_EQ(ids.idOf("lan0"), 1U);
    EXPECT_EQ(ids.idOf("wan0"), 2U);
    EXPECT_EQ(ids.idOf("lan0"), 1U);
}

TEST(InterfaceIds, SurviveARestart) {
    const tk::testing::Folder files;
    {
        InterfaceIds ids(files.file("interfaces"));
        EXPECT_EQ(ids.idOf("lan0"), 1U);
        EXPECT_EQ(ids.idOf("ppp0"), 2U);
    }
    InterfaceIds ids(files.file("interfaces"));
    EXPECT_EQ(ids.idOf("wan0"), 3U);
    EXPECT_EQ(ids.idOf("ppp0"), 2U);
}

TEST(InterfaceIds, WorkWithoutAStore) {
    const tk::testing::Folder files;
    files.write("file", "");
    InterfaceIds ids(files.file("file/interfaces"));
    EXPECT_EQ(ids.idOf("lan0"), 1U);
    EXPECT_EQ(ids.idOf("wan0"), 2U);
    EXPECT_EQ(ids.idOf("lan0"), 1U);
}

constexpr std::uint32_t usualIds = 1U << 24;  // beyond them are those at random

TEST(InterfaceIds, NoFormerIdIsGivenAgainWhenTheStoreIsDamaged) {
    const tk::testing::Folder files;
    const tk::testing::CapturedOutput output;
    {
        InterfaceIds ids(files.file("interfaces"));
        EXPECT_EQ(ids.idOf("lan0"), 1U);
        EXPECT_EQ(ids.idOf("wan0"), 2U);
    }
    files.write("interfaces", "half a file");
    (void)InterfaceIds(files.file("interfaces"));  // a router that ends before it has seen an interface
    std::uint32_t fresh = 0;
    {
        InterfaceIds ids(files.file("interfaces"));
        fresh = ids.idOf("wan0");
        EXPECT_GT(fresh, usualIds);
        EXPECT_EQ(ids.idOf("lan0"), fresh + 1);
    }
    InterfaceIds ids(files.file("interfaces"));
    EXPECT_EQ(ids.idOf("wan0"), fresh);
    EXPECT_EQ(ids.idOf("ppp0"), fresh + 2);
}

TEST(InterfaceIds, OneThatCannotBeStoredIsNotTheNextInLine) {
    const tk::testing::Folder files;
    const tk::testing::CapturedOutput output;
    {
        InterfaceIds ids(files.file("interfaces"));
        EXPECT_EQ(ids.idOf("lan0"), 1U);
        std::filesystem::create_directory(files.file("interfaces.new"));
        files.write("interfaces.new/in-the-way", "");
        EXPECT_GT(ids.idOf("wan0"), usualIds);
        std::filesystem::remove_all(files.file("interfaces.new"));
        EXPECT_EQ(ids.idOf("ppp0"), 2U);
    }
    InterfaceIds ids(files.file("interfaces"));
    EXPECT_EQ(ids.idOf("ppp0"), 2U);
    EXPECT_EQ(ids.idOf("wan0"), 3U);
}

/// Remembers three names.
class ForgottenIds : public ::testing::Test {
protected:
    void SetUp() override {
        start();
        EXPECT_EQ(ids->idOf("ppp1"), 1U);
        EXPECT_EQ(ids->idOf("lan0"), 2U);
        EXPECT_EQ(ids->idOf("ppp3"), 3U);
    }
    void start() { ids = std::make_unique<InterfaceIds>(files.file("interfaces"), 3); }
    void forget() {
        ids->forgetSurplus([this](std::uint32_t id) { return present.contains(id); });
    }

    const tk::testing::Folder files;
    std::unique_ptr<InterfaceIds> ids;
    std::set<std::uint32_t> present;
};

TEST_F(ForgottenIds, NoNameIsForgottenWithinTheLimit) {
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 1U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, TheAbsentNameWithTheLowestIdIsForgottenAndGetsANewOne) {
    present = {2, 4};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
    EXPECT_EQ(ids->idOf("ppp1"), 5U);
    forget();
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    EXPECT_EQ(ids->idOf("ppp3"), 6U);
}

TEST_F(ForgottenIds, AForgottenNameGetsANewIdAfterARestartToo) {
    present = {2, 4};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    start();
    EXPECT_EQ(ids->idOf("ppp1"), 5U);
    EXPECT_EQ(ids->idOf("lan0"), 2U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, APresentInterfaceIsNeverForgotten) {
    present = {1, 2, 3, 4, 5};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    EXPECT_EQ(ids->idOf("ppp5"), 5U);
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 1U);
    EXPECT_EQ(ids->idOf("ppp3"), 3U);
}

TEST_F(ForgottenIds, TheLastIdIsNotGivenAgainThoughItsInterfaceIsAbsent) {
    present = {1, 2, 3};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    forget();
    start();
    EXPECT_EQ(ids->idOf("ppp5"), 5U);
}

TEST_F(ForgottenIds, ANameThatCannotBeTakenOffTheStoreKeepsItsId) {
    present = {4};
    EXPECT_EQ(ids->idOf("ppp4"), 4U);
    std::filesystem::create_directory(files.file("interfaces.new"));
    files.write("interfaces.new/in-the-way", "");
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 1U);
    std::filesystem::remove_all(files.file("interfaces.new"));
    forget();
    EXPECT_EQ(ids->idOf("ppp1"), 5U);
}

}  // namespace
}  // namespace router
