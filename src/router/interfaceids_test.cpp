#include "router/interfaceids.h"

#include <gtest/gtest.h>

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

}  // namespace
}  // namespace router
