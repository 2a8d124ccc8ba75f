#include "hub/access.h"

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

constexpr uid_t root = 0, gateway = 901, resolver = 902, member = 903, writer = 904, tracer = 905,
                undoer = 906, admin = 907, both = 908;

const Access& table() {
    static const Access access({{gateway, {80}},
                                {resolver, {14}},
                                {.uid = writer, .writes = {{20, 5}, {80}}},
                                {.uid = tracer, .traces = true},
                                {.uid = undoer, .undoes = true},
                                {.uid = admin, .isAdmin = true},
                                {both, {14}},
                                {both, {80}}});
    return access;
}

/// A message as the hub sees it, its sender stamped.
tk::message message(tk::Kind kind, const tk::Path& from, const tk::Path& to, std::uint32_t command) {
    tk::message made;
    made.insert_u32_array(tk::field::destination, to);
    tk::stamp(made, from, 7, kind, command);
    return made;
}

std::string whyNotAsk(uid_t user, const tk::Path& to, std::uint32_t command, const tk::Path& from = {80, 0}) {
    return table().check(user, message(tk::Kind::request, from, to, command)).reason();
}

std::string whyNotCommand(uid_t user, std::uint32_t command, const tk::message& content = {}) {
    tk::message request = message(tk::Kind::request, {1000}, {0}, command);
    for (const tk::message::Field& field : content.fields()) request.insert(field);
    return table().check(user, request).reason();
}

tk::message programNumber(std::uint32_t program) {
    tk::message content;
    content.insert_u32(tk::hubfield::program, program);
    return content;
}

tk::message subscriptionTo(const tk::Path& path) {
    tk::message content;
    content.insert_u32_array(tk::hubfield::path, path);
    content.insert_u32(tk::hubfield::command, tk::command::objectsChanged);
    return content;
}

const std::set<uid_t> everybody = {root, gateway, resolver, member, writer, tracer, undoer, admin, both};
const std::set<uid_t> rootAlone = {root, admin};
/// Everybody but the users of the two programs.
const std::set<uid_t> others = {root, admin, member, writer, tracer, undoer};

std::set<uid_t> operator+(std::set<uid_t> left, const std::set<uid_t>& right) {
    left.insert(right.begin(), right.end());
    return left;
}

const std::set<uid_t> gateways = {gateway, both};

/// A path, and who may do what there.
struct Row {
    tk::Path path;
    std::set<uid_t> lookers;
    std::map<std::uint32_t, std::set<uid_t>> others;  // by command: who may send it
    std::set<uid_t> writers;                          // who may send all other commands
};

const Row rows[] = {
    {{20, 0},
     others + gateways,
     {{1, others + gateways}, {2, others + gateways}, {0xFE0003, rootAlone + gateways}},
     rootAlone},
    {{20},
     others + gateways,
     {{1, others + gateways}, {2, others + gateways}, {0xFE0003, rootAlone + gateways}},
     rootAlone},
    {{20, 1}, others + gateways, {}, rootAlone},
    {{20, 5},
     others + gateways,
     {{2, others + gateways},
      {0xFE0003, rootAlone + gateways + std::set<uid_t>{writer}},
      {0xFE0005, rootAlone + gateways + std::set<uid_t>{writer}},
      {0xFE0006, rootAlone + gateways + std::set<uid_t>{writer}}},
     rootAlone + std::set<uid_t>{writer}},
    {{20, 5, 1},
     others + gateways,
     {{2, others + gateways},
      {0xFE0003, rootAlone + gateways + std::set<uid_t>{writer}},
      {0xFE0005, rootAlone + gateways + std::set<uid_t>{writer}},
      {0xFE0006, rootAlone + gateways + std::set<uid_t>{writer}}},
     rootAlone + std::set<uid_t>{writer}},
    {{20, 77}, others + gateways, {}, rootAlone},
    {{24}, others, {{2, rootAlone + std::set<uid_t>{undoer}}, {0xFE0005, rootAlone + gateways}}, rootAlone},
    {{24, 0},
     others,
     {{2, rootAlone + std::set<uid_t>{undoer}}, {0xFE0005, rootAlone + gateways}},
     rootAlone},
    {{65}, others + gateways, {}, rootAlone},
    {{80}, others, {}, rootAlone + std::set<uid_t>{writer}},
    {{80, 0}, others, {}, rootAlone + std::set<uid_t>{writer}},
    {{80, 1}, others, {{2, others}}, rootAlone + std::set<uid_t>{writer}},
    {{14}, rootAlone + gateways, {{3, rootAlone + gateways}}, rootAlone},
    {{33}, rootAlone, {}, rootAlone},
    {{999, 3}, rootAlone, {}, rootAlone},
    {{1001}, rootAlone, {}, rootAlone},
};

/// The commands of the platform that change nothing, all others of it, and some that nobody knows.
constexpr std::uint32_t readings[] = {0xFE0001, 0xFE0002, 0xFE0004, 0xFE000D, 0xFE000F};
constexpr std::uint32_t changes[] = {0,        1,        2,        3,        4,          5,         6,
                                     0xFE0003, 0xFE0005, 0xFE0006, 0xFE0007, 0xFE0008,   0xFE0009,  0xFE000A,
                                     0xFE000B, 0xFE000C, 0xFE000E, 0xFE0010, 0xFFFFFFFE, 0xFFFFFFFF};

std::string name(uid_t user, const tk::Path& path, std::uint32_t command) {
    std::string text = "user " + std::to_string(user) + ", command " + std::to_string(command) + ", path";
    for (const std::uint32_t element : path) text += " " + std::to_string(element);
    return text;
}

TEST(Access, AClientThatIsNoProgramRecordsNothing) {
    EXPECT_EQ(whyNotAsk(gateway, {24}, tk::command::addObject, {1000}),
              "may not record changes: it is no program");
    EXPECT_EQ(whyNotAsk(root, {24}, tk::command::addObject, {1000}), "");
    EXPECT_EQ(whyNotAsk(gateway, {20, 5}, tk::command::addObject, {1000}), "");
}

TEST(Access, EveryUserAsksEveryPathWhatTheTableSaysAndNothingElse) {
    for (const Row& row : rows)
        for (const uid_t user : everybody) {
            for (const std::uint32_t command : readings)
                EXPECT_EQ(whyNotAsk(user, row.path, command).empty(), row.lookers.contains(user))
                    << name(user, row.path, command);
            for (const std::uint32_t command : changes) {
                const auto known = row.others.find(command);
                const std::set<uid_t>& allowed = known == row.others.end() ? row.writers : known->second;
                EXPECT_EQ(whyNotAsk(user, row.path, command).empty(), allowed.contains(user))
                    << name(user, row.path, command);
            }
        }
}

TEST(Access, WhoeverMayLookMaySubscribe) {
    for (const Row& row : rows)
        for (const uid_t user : everybody)
            EXPECT_EQ(whyNotCommand(user, tk::command::hubSubscribe, subscriptionTo(row.path)).empty(),
                      row.lookers.contains(user))
                << name(user, row.path, 0);
}

TEST(Access, ProgramsAreRegisteredByTheirUsers) {
    const std::map<std::uint32_t, std::set<uid_t>> registering = {
        {80, rootAlone + gateways}, {14, rootAlone + std::set<uid_t>{resolver, both}}, {81, rootAlone}};
    for (const auto& [program, allowed] : registering)
        for (const uid_t user : everybody)
            EXPECT_EQ(whyNotCommand(user, tk::command::hubRegister, programNumber(program)).empty(),
                      allowed.contains(user))
                << name(user, {program}, 1);
}

TEST(Access, TheTraceIsForThoseWhoMayTrace) {
    for (const uid_t user : everybody)
        EXPECT_EQ(whyNotCommand(user, tk::command::hubTrace).empty(),
                  (rootAlone + std::set<uid_t>{tracer}).contains(user))
            << user;
}

TEST(Access, WhoeverMayLookAtTheRouterMayAskForItsPrograms) {
    for (const uid_t user : everybody)
        EXPECT_EQ(whyNotCommand(user, tk::command::hubPrograms).empty(), (others + gateways).contains(user))
            << user;
    EXPECT_EQ(whyNotCommand(resolver, tk::command::hubPrograms),
              "may not look at {20,0}: it needs writes = [\"20,0\"]");
}

TEST(Access, EverybodyMaySendWhatConcernsOnlyTheSender) {
    for (const uid_t user : everybody) {
        EXPECT_EQ(whyNotCommand(user, tk::command::hubUnsubscribe, subscriptionTo({24})), "");
        EXPECT_EQ(whyNotCommand(user, tk::command::hubUnregister, programNumber(80)), "");
        EXPECT_EQ(whyNotAsk(user, {}, tk::command::set), "") << "it goes nowhere";
    }
}

TEST(Access, OnlyAProgramTellsAndAnswersAndOnlyInItsOwnName) {
    const std::map<std::uint32_t, std::set<uid_t>> speaking = {
        {80, rootAlone + gateways},
        {14, rootAlone + std::set<uid_t>{resolver, both}},
        {20, rootAlone},
        {24, rootAlone},
        {1000, rootAlone}};
    for (const tk::Kind kind : {tk::Kind::reply, tk::Kind::error, tk::Kind::notification})
        for (const auto& [program, allowed] : speaking)
            for (const uid_t user : everybody)
                EXPECT_EQ(table().check(user, message(kind, {program, 0}, {24}, 5)).isOk(),
                          allowed.contains(user))
                    << name(user, {program, 0}, 5);
}

TEST(Access, ARefusalSaysWhichRightIsMissing) {
    EXPECT_EQ(whyNotAsk(member, {80}, tk::command::set), "may not change {80}: it needs writes = [\"80\"]");
    EXPECT_EQ(whyNotAsk(member, {20, 5, 1}, tk::command::addObject),
              "may not change {20,5}: it needs writes = [\"20,5\"]");
    EXPECT_EQ(whyNotAsk(resolver, {20, 5}, tk::command::getAll),
              "may not look at {20,5}: it needs writes = [\"20,5\"]");
    EXPECT_EQ(whyNotAsk(writer, {24}, 2), "may not undo changes: it needs undo = true");
    EXPECT_EQ(whyNotCommand(undoer, tk::command::hubTrace), "may not trace: it needs trace = true");
    EXPECT_EQ(whyNotCommand(resolver, tk::command::hubRegister, programNumber(80)),
              "may not register program 80: it needs programs = [80]");
    EXPECT_EQ(table().check(resolver, message(tk::Kind::reply, {80}, {24}, 5)).reason(),
              "may not speak as program 80: it needs programs = [80]");
    EXPECT_EQ(table().check(resolver, message(tk::Kind::reply, {1000}, {24}, 5)).reason(),
              "may not tell anything: it is no program");
}

TEST(Access, WritesAreWithinWhatWasGranted) {
    const Access access({{.uid = member, .writes = {{24}, {0}, {81, 3}}}});
    const auto mayAsk = [&access](const tk::Path& path, std::uint32_t command) {
        return access.check(member, message(tk::Kind::request, {1000}, path, command)).isOk();
    };
    EXPECT_TRUE(mayAsk({24}, tk::command::addObject));
    EXPECT_FALSE(mayAsk({24}, 2)) << "undoing is a right of its own";
    EXPECT_FALSE(mayAsk({0}, tk::command::hubTrace)) << "and so are those that the hub gives";
    EXPECT_TRUE(mayAsk({81, 3}, tk::command::get)) << "who may change may look";
    EXPECT_TRUE(mayAsk({81, 3, 4}, tk::command::set));
    EXPECT_FALSE(mayAsk({81}, tk::command::get)) << "the short path is handler 0";
    EXPECT_FALSE(mayAsk({81, 2}, tk::command::get));
}

TEST(Access, RootAndUsersThatMayRegisterAProgramRunPrograms) {
    for (const uid_t user : everybody)
        EXPECT_EQ(table().runsPrograms(user),
                  (rootAlone + gateways + std::set<uid_t>{resolver}).contains(user))
            << user;
}

}  // namespace
}  // namespace hub
