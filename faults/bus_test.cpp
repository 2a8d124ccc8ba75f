// A program's connection to the bus: each request ends exactly once, and a program that lost the bus can join again.
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "tk/busconnection.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/fakehub.h"
#include "tk/testing/testloop.h"

namespace faults {

namespace {

constexpr std::uint32_t patience = 200;  // milliseconds: long enough for a socket of the same machine
constexpr std::uint32_t changed = 0xFE000B;

tk::message numbered(std::uint32_t value) {
    tk::message content;
    content.insert_u32(1, value);
    return content;
}

/// A program between a hub that is played by hand and a loop whose time moves by hand.
class BusWorld final : public World, private tk::BusConnection::Receiver {
public:
    Outcome act() override {
        lost = false;
        heard.clear();
        open();
        Outcome outcome{connection ? "open" : ""};
        outcome.push_back(exchange(1));
        hub.sendNotification({20, 0}, changed, numbered(7));
        outcome.push_back(exchange(2));
        turnUntil([this] { return heard.find('7') != std::string::npos; });
        outcome.push_back(answerRequest());
        outcome.push_back(heard);
        if (connection && !lost && heard != "7 8 ") broken += "messages were lost, the connection was not\n";
        const InProgram here;
        connection.reset();
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    void open() {
        {
            const InProgram here;
            auto opened = tk::BusConnection::open(hub.path(), loop.looper.runner(), this);
            if (opened.isOk()) connection = opened.take();
        }
        if (connection) hub.accept();
    }
    /// A request whose end is on its way already.
    std::string exchange(std::uint32_t number) {
        if (!connection) return {};
        hub.sendEnd(number, numbered(number));
        tk::message request = numbered(5);
        request.insert_u32_array(tk::field::destination, {20, 0});
        const InProgram here;
        const tk::message end = connection->exchange(request, {80, 0}, tk::command::getAll, patience);
        return tk::isError(end) ? "" : std::to_string(end.get_u32(1));
    }
    /// What the hub reads when the program has served a request.
    std::string answerRequest() {
        if (!connection || !connection->isOpen()) return {};
        hub.sendRequest({80, 0}, 9, tk::command::get, numbered(8));
        turnUntil([this] { return heard.find('8') != std::string::npos; });
        // A request is answered at once, after the program's own two.
        if (!connection->isOpen() || heard.find('8') == std::string::npos) return {};
        turnUntil([] { return false; });  // until what could not be sent at once is on its way
        tk::message sent;
        bool isRead = true;
        for (int messages = 0; messages < 3 && isRead; ++messages) isRead = hub.read(sent);
        return isRead ? std::to_string(sent.get_u32(1)) : "";
    }
    void turnUntil(const std::function<bool()>& isDone) {
        const InProgram here;
        for (int turns = 0; turns < 10 && !isDone() && !lost; ++turns) {
            loop.looper.turn(0);
            loop.clock.advance(500);
        }
    }
    void busReceived(const tk::message& arrived) override {
        heard += std::to_string(arrived.get_u32(1)) + " ";
        if (tk::kindOf(arrived) == tk::Kind::request) connection->post(tk::endOf(arrived, numbered(10)));
    }
    void busLost(const std::string&) override { lost = true; }

    tk::testing::CapturedOutput output;
    tk::testing::TestLoop loop;
    tk::testing::FakeHub hub;
    std::unique_ptr<tk::BusConnection> connection;
    bool lost = false;
    std::string heard;
    std::string broken;
};

TEST(BusFaults, EndARequestOnceAndLeaveTheBusReachable) {
    failEveryCall(
        [] { return std::make_unique<BusWorld>(); },
        [](const std::string& actual, const std::string& whole) { return whole.starts_with(actual); });
}

}  // namespace

}  // namespace faults
