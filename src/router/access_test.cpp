#include "router/access.h"

#include <gtest/gtest.h>

#include "tk/names.h"

namespace router {
namespace {

constexpr uid_t daemonUser = 900;
constexpr uid_t otherUser = 901;

tk::message request(const tk::Path& to, std::uint32_t command) {
    tk::message made;
    made.insert_u32_array(tk::field::destination, to);
    made.insert_u32(tk::field::command, command);
    return made;
}

const Access& table() {
    static const Access access({{daemonUser, {80}, {{20, 5}}}, {902, {14}, {{20}}}});
    return access;
}

TEST(Access, ProgramsAreTheirUsers) {
    EXPECT_TRUE(table().mayRegister(0, 80));
    EXPECT_TRUE(table().mayRegister(daemonUser, 80));
    EXPECT_FALSE(table().mayRegister(daemonUser, 14));
    EXPECT_FALSE(table().mayRegister(otherUser, 80));
}

struct Case {
    const char* name;
    uid_t user;
    tk::Path to;
    std::uint32_t command;
    bool isAllowed;
};

class AccessTest : public ::testing::TestWithParam<Case> {};

TEST_P(AccessTest, AnswersAsTabled) {
    EXPECT_EQ(table().maySend(GetParam().user, request(GetParam().to, GetParam().command)),
              GetParam().isAllowed);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, AccessTest,
    ::testing::Values(Case{"RootWrites", 0, {20, 5}, tk::command::addObject, true},
                      Case{"AnybodyReads", otherUser, {20, 5}, tk::command::getAll, true},
                      Case{"AnybodyTests", otherUser, {20, 5}, 2, true},
                      Case{"AnybodyListsPages", otherUser, {20, 0}, 1, true},
                      Case{"NobodyElseWrites", otherUser, {20, 5}, tk::command::addObject, false},
                      Case{"NorUnknownCommands", otherUser, {20, 0}, 0xFE0042, false},
                      Case{"TheShortPathIsHandlerZero", otherUser, {20}, tk::command::setObject, false},
                      Case{"TheUserWritesWhereItMay", daemonUser, {20, 5}, tk::command::addObject, true},
                      Case{"AlsoBehindThat", daemonUser, {20, 5, 1}, tk::command::setObject, true},
                      Case{"NotElsewhere", daemonUser, {20, 0}, tk::command::setObject, false},
                      Case{"NotAtTheShortPath", daemonUser, {20}, tk::command::setObject, false},
                      Case{"AWholeProgramMayBeGranted", 902, {20, 0}, tk::command::setObject, true},
                      Case{"OtherProgramsAreEverybodys", otherUser, {80, 0}, tk::command::set, true},
                      Case{"NoDestination", otherUser, {}, tk::command::set, true}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(Access, RootAndUsersThatMayRegisterAProgramRunPrograms) {
    const Access table({{daemonUser, {80}, {}}, {902, {}, {{20}}}});
    EXPECT_TRUE(table.runsPrograms(0));
    EXPECT_TRUE(table.runsPrograms(daemonUser));
    EXPECT_FALSE(table.runsPrograms(902));
    EXPECT_FALSE(table.runsPrograms(otherUser));
}

}  // namespace
}  // namespace router
