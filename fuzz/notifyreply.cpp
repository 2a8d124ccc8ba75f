// What a subscriber answers to a NOTIFY, on a real connection. The first byte says how it ends: 0 it stays
// open, 1 the subscriber closes its side, 2 it breaks off; bit 2 stands for a NOTIFY of one variable, bit 3
// for an unknown one, bit 4 for a subscription that is gone by then. The second says how long the first piece
// of the reply is; the rest follows once that has been read. However it goes: the delivery ends, at the
// latest when its time is up, gives everything back, and leaves the subscription as it was.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/target.h"
#include "tk/log.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/subscription.h"

namespace {

constexpr std::uint32_t deliveryTicks = 3000;  // the longest that a delivery may take

/// Where the subscriber listens.
struct Listener {
    Listener() : socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        fuzz::require(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                          ::listen(socket.get(), 1) == 0 &&
                          ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
                      "a subscriber listens");
        port = ntohs(address.sin_port);
    }
    /// Takes a connection that breaks off when it is closed, so that the kernel keeps nothing of it.
    tk::Fd accept() const {
        tk::Fd connection(::accept(socket.get(), nullptr, nullptr));
        const linger atOnce{1, 0};
        fuzz::require(::setsockopt(connection.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce) == 0,
                      "the connection comes");
        return connection;
    }
    tk::Fd socket;
    std::uint16_t port = 0;
};

const Listener& listener() {
    static const bool isApart = tk::testing::enterPrivateNetwork();
    fuzz::require(isApart, "needs root, for a network of its own");
    static const Listener instance;
    return instance;
}

struct Plan {
    explicit Plan(std::uint8_t byte)
        : end(byte & 3),
          variable(byte & 8   ? "Unknown"
                   : byte & 4 ? "A"
                              : ""),
          isGone(byte & 16) {}
    int end;
    std::string variable;
    bool isGone;
};

void addVariable(gateway::Service& service, const char* name, const char* value) {
    auto variable = std::make_unique<gateway::Variable>(std::list<std::string>{}, true);
    variable->setValue(value);
    service.addVar(name, variable.release());
}

/// What the subscriber has read. It checks the NOTIFY, and that it is the only one.
void checkNotify(const tk::Fd& connection, bool isExpected) {
    char bytes[4096];
    const ssize_t length = ::recv(connection.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    if (!isExpected) return fuzz::require(length <= 0, "no NOTIFY without a subscription or a variable");
    fuzz::require(length > 0, "the NOTIFY comes");
    const gateway::HTTPMessage notify(std::string_view(bytes, static_cast<std::size_t>(length)));
    fuzz::require(notify.complete && notify.title == "NOTIFY /path HTTP/1.1" && notify.get("SEQ") == "0" &&
                      notify.get("SID") == "uuid:s",
                  "the NOTIFY is whole");
}

void send(const tk::Fd& connection, std::string_view text) {
    (void)::send(connection.get(), text.data(), text.size(),
                 MSG_NOSIGNAL | MSG_DONTWAIT);  // fails when it has ended
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const Plan plan(data[0]);
    const std::string_view reply = fuzz::text(data + 2, size - 2);
    const std::string_view first = reply.substr(0, std::min<std::size_t>(data[1], reply.size()));
    const Listener& subscriber = listener();
    const tk::LogBatch quiet;
    tk::testing::TestLoop loop;
    const tk::Runner& runner = loop.looper.runner();
    const std::size_t idleSockets = runner.socketCount();
    gateway::Service service("urn:x");
    addVariable(service, "A", "1");
    addVariable(service, "B", "");
    auto& subscription = service.subscriptions["uuid:s"];
    subscription = std::make_unique<gateway::Subscription>(service, "uuid:s", htonl(INADDR_LOOPBACK),
                                                           subscriber.port, "/path");
    const int next = fuzz::nextDescriptor();

    service.sendEvent(*subscription, plan.variable);
    fuzz::require(service.events.size() == 1, "the delivery begins");
    if (plan.isGone) service.subscriptions.clear();
    {
        tk::Fd connection = subscriber.accept();
        loop.looper.turn(0);
        const bool isSent = !plan.isGone && plan.variable != "Unknown";
        fuzz::require(service.events.size() == (isSent ? 1 : 0),
                      "a delivery waits for the reply to what it sent");
        checkNotify(connection, isSent);
        send(connection, first);
        loop.looper.turn(0);
        fuzz::require(service.events.size() == (isSent && first.empty() ? 1 : 0),
                      "the first bytes of a reply end it");
        send(connection, reply.substr(first.size()));
        if (plan.end == 1) ::shutdown(connection.get(), SHUT_WR);
        if (plan.end == 2) connection.reset();
        loop.looper.turn(0);
        loop.looper.turn(0);
        loop.advance(deliveryTicks);
    }
    fuzz::require(service.events.empty(), "a delivery is over when its time is up");
    fuzz::require(runner.socketCount() == idleSockets && runner.timerCount() == 0,
                  "nothing is waited for any more");
    fuzz::require(fuzz::nextDescriptor() == next, "its descriptor is closed");
    if (!plan.isGone) {
        fuzz::require(service.subscriptions.size() == 1, "no reply ends a subscription");
        fuzz::require(service.subscriptions["uuid:s"]->seq == (plan.variable == "Unknown" ? 0 : 1),
                      "one number was used");
    }
    return 0;
}
