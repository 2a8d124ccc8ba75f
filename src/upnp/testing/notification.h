#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/service.h"
#include "upnp/testing/subscriber.h"

namespace gateway {

/// A service with one subscriber, whose port the test itself holds.
class Notification : public testing::Test {
protected:
    Notification() { subscribeAt(subscriber.port); }

    void subscribeAt(std::uint16_t port, std::uint32_t address = htonl(INADDR_LOOPBACK)) {
        service.subscriptions["uuid:s"] =
            std::make_unique<Subscription>(service, "uuid:s", address, port, "/notify");
    }
    Subscription& subscription() { return *service.subscriptions.at("uuid:s"); }
    void addVariable(const std::string& name, bool evented, const char* value) {
        Variable& variable =
            service.addVar(name, std::make_unique<Variable>(std::list<std::string>{}, evented).release());
        if (value) variable.setValue(value);
    }
    /// Starts one event, and returns the logged lines.
    std::string start(const std::string& varName) {
        const tk::testing::CapturedOutput output;
        service.sendEvent(subscription(), varName);
        return output.text();
    }
    /// Lets the loop wait for its next event, and returns the logged lines.
    std::string turn(int limit = longestWait) {
        const tk::testing::CapturedOutput output;
        loop.looper.turn(limit);
        return output.text();
    }
    std::string advance(std::uint32_t ticks) {
        const tk::testing::CapturedOutput output;
        loop.advance(ticks);
        return output.text();
    }
    std::string notify(const std::string& seq, const std::string& properties) const {
        const std::string body = "<?xml version=\"1.0\"?>\r\n" + properties;
        return "NOTIFY /notify HTTP/1.1\r\nHOST: 127.0.0.1:" + std::to_string(subscriber.port) +
               "\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: " + std::to_string(body.size()) +
               "\r\nNT: upnp:event\r\nNTS: upnp:propchange\r\nSID: uuid:s\r\nSEQ: " + seq + "\r\n\r\n" + body;
    }
    static std::string propertySet(const std::vector<std::pair<std::string, std::string>>& properties) {
        std::string text = "<e:propertyset xmlns:e=\"urn:schemas-upnp-org:event-1-0\">";
        if (!properties.empty()) text += "\r\n";
        for (const auto& [name, value] : properties)
            text += "  <e:property>\r\n    <" + name + ">" + value + "</" + name + ">\r\n  </e:property>\r\n";
        return text + "</e:propertyset>\r\n";
    }
    /// True when no event is left and the loop holds nothing of one.
    bool isOver() const {
        return service.events.empty() && tk::getRunner()->timerCount() == 0 && watched() == idleWatches;
    }
    static void send(const tk::Fd& connection, const std::string& text) {
        EXPECT_EQ(::send(connection.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    static std::string received(const tk::Fd& connection) { return Subscriber::received(connection); }
    static std::size_t watched() { return tk::getRunner()->socketCount(); }

    static constexpr int longestWait = 5000;  // milliseconds that a test waits for its own host

    tk::testing::TestLoop loop;
    const std::size_t idleWatches = watched();
    Service service{"urn:x"};
    Subscriber subscriber;
};

}  // namespace gateway
