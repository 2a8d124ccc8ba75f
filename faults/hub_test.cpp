// The hub among its peers: what it carries arrives or ends in an error, and nobody's loss is another's.
#include <errno.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "hub/listener.h"
#include "hub/testing/testhub.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

using hub::testing::subscription;
using hub::testing::TestClient;
using hub::testing::text;

/// A connection to the bus at `path`; null when nobody takes it.
std::unique_ptr<TestClient> connectTo(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    tk::Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) return {};
    return std::make_unique<TestClient>(std::move(socket));
}

/// A hub that listens on a real socket, a program and a client of it.
class HubWorld final : public World {
public:
    HubWorld() : listener(std::make_unique<hub::Listener>(bus.hub)) {}
    ~HubWorld() override { close(); }

    Outcome act() override {
        Outcome outcome{open()};
        program = connectTo(path);
        client = connectTo(path);
        tk::message number;
        number.insert_u32(1, contract::program::gateway);
        outcome.push_back(ask(program, {0}, tk::command::hubRegister, number));
        outcome.push_back(throughTheProgram());
        outcome.push_back(ask(client, {0}, tk::command::hubSubscribe,
                              subscription({contract::program::gateway, 0}, changed)));
        if (isOpen(program)) program->notify({contract::program::gateway, 0}, changed, text("news"));
        outcome.push_back(arrived(client));
        close();
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    static constexpr std::uint32_t changed = 0xFE000B;

    std::string open() {
        const InProgram here;
        const tk::Status opened = listener->open(path);
        if (opened.isOk()) return "open";
        listener->close();
        return {};
    }
    void close() {
        program.reset();
        client.reset();
        const InProgram here;
        listener->close();
        bus.settle();
        if (bus.hub.peerCount() != 0) bus.advance(200);
        if (bus.hub.peerCount() != 0) broken += "the hub holds connections that have ended\n";
    }
    static bool isOpen(const std::unique_ptr<TestClient>& peer) { return peer && peer->isWritable(); }
    void serve() {
        const InProgram here;
        for (int turns = 0; turns < 6; ++turns) bus.looper.turn(0);
    }
    /// What arrives at a peer; a peer that is told nothing waits for what the hub tries again.
    std::string arrived(std::unique_ptr<TestClient>& peer) {
        if (!peer) return {};
        std::vector<tk::message> messages;
        for (int seconds = 0; seconds < 3 && messages.empty() && isOpen(peer); ++seconds) {
            serve();
            messages = peer->take();
            bus.clock.advance(1000);
        }
        if (messages.size() > 1) broken += "more arrived than was sent\n";
        if (messages.empty()) return {};
        last = messages.front();
        return tk::isError(last) ? "error" : "message " + last.get_string(1);
    }
    std::string ask(std::unique_ptr<TestClient>& peer, const tk::Path& to, std::uint32_t command,
                    const tk::message& content) {
        if (!isOpen(peer)) return {};
        peer->request(to, command, content);
        std::string end = arrived(peer);
        if (end.empty() && isOpen(peer)) broken += "a request has no end\n";
        return end;
    }
    /// A request of the client that the program answers.
    std::string throughTheProgram() {
        if (!isOpen(client)) return {};
        client->request({contract::program::gateway, 0}, tk::command::get, text("question"));
        if (!arrived(program).empty() && isOpen(program))
            program->answer(last, text("answer"));
        else
            program.reset();  // so that its requests end
        std::string end = arrived(client);
        if (end.empty() && isOpen(client)) broken += "a request to a program has no end\n";
        return end;
    }

    tk::testing::CapturedOutput output;
    tk::testing::Folder files;
    const std::string path = files.file("run/bus");
    hub::testing::TestHub bus;
    std::unique_ptr<hub::Listener> listener;
    std::unique_ptr<TestClient> program, client;
    tk::message last;
    std::string broken;
};

// It is the C library that asks for memory, to look up a group. It may crash without, in the process that does it.
TEST(HubFaults, EndEachRequestOnceAndLeaveTheHubServing) {
    failEveryCall([] { return std::make_unique<HubWorld>(); },
                  [](const std::string& actual, const std::string&) { return actual == "error"; },
                  {.everyAllocation = 32});
}

TEST(HubFaults, AListenerWithoutDescriptorsRestsBeforeItTriesAgain) {
    const tk::testing::Folder files;
    const std::string path = files.file("bus");
    hub::testing::TestHub bus;
    hub::Listener listener(bus.hub);
    ASSERT_TRUE(listener.open(path).isOk());
    const std::unique_ptr<TestClient> caller = connectTo(path);
    begin({Call::accept4, 1, ENFILE});
    {
        const InProgram here;
        bus.settle();
    }
    EXPECT_EQ(end()[static_cast<std::size_t>(Call::accept4)], 1U);
    bus.advance(9);
    EXPECT_EQ(bus.hub.peerCount(), 0U);
    bus.advance(1);
    bus.settle();
    EXPECT_EQ(bus.hub.peerCount(), 1U);
}

}  // namespace

}  // namespace faults
