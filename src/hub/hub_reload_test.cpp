// What the hub answers about its programs, and what becomes of open connections when rights change.

#include "hub/hub.h"

#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "hub/testing/testhub.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace hub {
namespace {

using testing::TestClient;

constexpr uid_t user = 71;
constexpr std::uint32_t command = 77;

class FakeReloader final : public Reloader {
public:
    tk::Result<std::vector<std::string>> reload(const std::string& asker) override {
        ++calls;
        askers.push_back(asker);
        return answer;
    }

    int calls = 0;
    std::vector<std::string> askers;
    tk::Result<std::vector<std::string>> answer = std::vector<std::string>();
};

class HubReloadTest : public ::testing::Test {
protected:
    void allow(const UserRights& rights) { bus.hub.setAccess(Access({rights})); }
    /// True when a notification reaches the client.
    bool hears(TestClient& client, const tk::Path& from) {
        const auto teller = bus.connectProgram(from.front());
        teller->notify(from, command);
        return !bus.arrivedAt(client).empty();
    }

    FakeReloader reloader;
    testing::TestHub bus;
};

TEST_F(HubReloadTest, ListsThePrograms) {
    const auto program = bus.connectProgram(80);
    const auto client = bus.connect(user);
    const tk::message reply = bus.ask(*client, {0}, tk::command::hubPrograms);
    const std::vector<tk::message>& list = reply.get_message_array(tk::field::objects);
    ASSERT_EQ(list.size(), 2U);
    EXPECT_EQ(list[0].get_u32(1), 20U);
    EXPECT_EQ(list[0].get_u32(2), static_cast<std::uint32_t>(::getpid()));
    EXPECT_EQ(list[0].get_u32(3), ::geteuid());
    EXPECT_EQ(list[1].get_u32(1), 80U);
    EXPECT_EQ(list[1].get_u32(3), 0U);
}

TEST_F(HubReloadTest, NamesTheSectionsThatChanged) {
    bus.hub.setReloader(&reloader);
    const auto client = bus.connect();
    EXPECT_FALSE(bus.ask(*client, {0}, tk::command::hubReload).has(1));
    reloader.answer = std::vector<std::string>{"lan", "nat"};
    const tk::message reply = bus.ask(*client, {0}, tk::command::hubReload);
    const std::vector<tk::message>& sections = reply.get_message_array(1);
    ASSERT_EQ(sections.size(), 2U);
    EXPECT_EQ(sections[0].get_string(1), "lan");
    EXPECT_EQ(sections[1].get_string(1), "nat");
}

TEST_F(HubReloadTest, TellsWhyNothingChanged) {
    bus.hub.setReloader(&reloader);
    reloader.answer = tk::Status::failure("r.toml:1: no");
    const auto client = bus.connect();
    EXPECT_EQ(tk::getError(bus.ask(*client, {0}, tk::command::hubReload)), "r.toml:1: no");
}

TEST_F(HubReloadTest, OnlyAnAdministratorReloads) {
    bus.hub.setReloader(&reloader);
    const auto client = bus.connect(user);
    EXPECT_EQ(tk::getError(bus.ask(*client, {0}, tk::command::hubReload)),
              "user 71 may not reload the configuration: it needs admin = true");
    allow({.uid = user, .writes = {{0}}, .traces = true, .undoes = true});
    EXPECT_TRUE(tk::isError(bus.ask(*client, {0}, tk::command::hubReload)));
    EXPECT_EQ(reloader.calls, 0);
    allow({.uid = user, .isAdmin = true});
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubReload)));
    EXPECT_EQ(reloader.calls, 1);
    EXPECT_EQ(reloader.askers, std::vector<std::string>{"user 71"});
}

TEST_F(HubReloadTest, RightsCountForConnectionsThatAreOpen) {
    const auto client = bus.connect(user);
    const tk::Path changes = {81, 0};
    EXPECT_EQ(testing::codeOf(
                  bus.ask(*client, {0}, tk::command::hubSubscribe, testing::subscription(changes, command))),
              tk::error::notAllowed);
    allow({.uid = user, .writes = {{81}}});
    EXPECT_FALSE(tk::isError(
        bus.ask(*client, {0}, tk::command::hubSubscribe, testing::subscription(changes, command))));
    EXPECT_TRUE(hears(*client, changes));
    allow({.uid = user, .writes = {{81, 0}}});
    EXPECT_TRUE(hears(*client, changes)) << "it still may";
    allow({.uid = user});
    EXPECT_FALSE(hears(*client, changes));
    allow({.uid = user, .writes = {{81}}});
    EXPECT_FALSE(hears(*client, changes)) << "it has to subscribe again";
}

TEST_F(HubReloadTest, WhoMayNotTraceAnyMoreSeesNothingMore) {
    allow({.uid = user, .traces = true});
    const auto client = bus.connect(user);
    EXPECT_FALSE(tk::isError(bus.ask(*client, {0}, tk::command::hubTrace)));
    (void)bus.connectProgram(80);
    EXPECT_FALSE(bus.arrivedAt(*client).empty());
    allow({.uid = user});
    (void)bus.connectProgram(81);
    EXPECT_TRUE(bus.arrivedAt(*client).empty());
}

TEST_F(HubReloadTest, AProgramWhoseUserMayNotBeItAnyMoreIsDisconnected) {
    allow({.uid = user, .programs = {81, 82}});
    const auto first = bus.connectProgram(81, user);
    const auto second = bus.connectProgram(82, user);
    EXPECT_EQ(bus.hub.userOf(81), user);
    allow({.uid = user, .programs = {82}});
    bus.settle();
    EXPECT_TRUE(first->isClosed());
    EXPECT_FALSE(second->isClosed());
    EXPECT_FALSE(bus.hub.userOf(81));
}

TEST_F(HubReloadTest, AProgramThatIsBeingDisconnectedIsNobodyAlready) {
    allow({.uid = user, .programs = {81}});
    const auto program = bus.connectProgram(81, user);
    allow({.uid = user});
    EXPECT_FALSE(bus.hub.userOf(81));
}

/// Lets a user be a program for as long as it is that program.
class LastingRight final : public ProgramWatcher {
public:
    explicit LastingRight(testing::TestHub& bus) : bus(bus) { bus.hub.setProgramWatcher(this); }
    void programComes(std::uint32_t, uid_t) override {}
    void programLeft() override {
        ++left;
        if (!bus.hub.userOf(81)) bus.hub.setAccess({});
    }

    int left = 0;

private:
    testing::TestHub& bus;
};

/// Program 81, whose right to be it ends with it.
class LeavingProgramTest : public HubReloadTest {
protected:
    tk::message registerAgain(TestClient& client) {
        tk::message content;
        content.insert_u32(1, 81);
        return bus.ask(client, {0}, tk::command::hubRegister, content);
    }
    std::unique_ptr<TestClient> come() {
        allow({.uid = user, .programs = {81}});
        return bus.connectProgram(81, user);
    }

    const std::unique_ptr<TestClient> program = come();
    LastingRight watcher{bus};
};

TEST_F(LeavingProgramTest, TheEndOfItsConnectionIsTold) {
    program->close();
    bus.settle();
    EXPECT_EQ(watcher.left, 1);
    (void)bus.connect();
    bus.settle();
    EXPECT_EQ(watcher.left, 1) << "another client is no program";
    EXPECT_TRUE(tk::isError(registerAgain(*bus.connect(user))));
}

TEST_F(LeavingProgramTest, GivingTheNumberUpIsTold) {
    tk::message content;
    content.insert_u32(1, 81);
    EXPECT_FALSE(tk::isError(bus.ask(*program, {0}, tk::command::hubUnregister, content)));
    EXPECT_EQ(watcher.left, 1);
    EXPECT_TRUE(tk::isError(registerAgain(*bus.connect(user))));
}

TEST_F(LeavingProgramTest, TheNextOneMustHaveTheRightWhenTheLastHasLeft) {
    const auto next = bus.connect(user);
    bus.settle();
    program->close();  // the loop hears of it after the request
    EXPECT_EQ(testing::codeOf(registerAgain(*next)), tk::error::notAllowed);
    EXPECT_FALSE(bus.hub.userOf(81));
}

}  // namespace
}  // namespace hub
