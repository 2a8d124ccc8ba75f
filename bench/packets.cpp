#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <sys/socket.h>

#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "bench/arguments.h"
#include "bench/sockets.h"
#include "bench/times.h"

using namespace bench;

// Times single datagrams on their way through a router. One thread owns both ends, each in its network
// namespace: the kernel carries a datagram over veth while its sender is in sendto, so no process is woken in
// the time that is taken.

namespace {

constexpr int patience = 1000;  // milliseconds until a datagram counts as lost
constexpr char payload[] = "x";

struct Settings {
    std::string senderSpace;
    std::string receiverSpace;
    std::string to;
    std::uint16_t listen = 0;
    std::size_t count = 1000;
    std::uint16_t firstSource = 0;  // 0: one flow
};

void enter(const std::string& space) {
    const tk::Fd descriptor(::open(space.c_str(), O_RDONLY | O_CLOEXEC));
    if (!descriptor.isOpen() || ::setns(descriptor.get(), CLONE_NEWNET) != 0) fail(space);
}

tk::Fd socketIn(const std::string& space, std::uint16_t port) {
    enter(space);
    tk::Fd socket = datagramsOn(port);
    limitWaiting(socket, patience);
    return socket;
}

void send(const tk::Fd& socket, const sockaddr_in& to) {
    if (::sendto(socket.get(), payload, sizeof payload, 0, reinterpret_cast<const sockaddr*>(&to),
                 sizeof to) < 0)
        fail("sendto");
}

sockaddr_in receive(const tk::Fd& socket) {
    char bytes[64];
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    if (::recvfrom(socket.get(), bytes, sizeof bytes, 0, reinterpret_cast<sockaddr*>(&peer), &length) < 0)
        fail("a datagram was lost");
    return peer;
}

/// There and back again, all in one flow. What belongs to its first packets is not timed.
Times oneFlow(const Settings& settings, const tk::Fd& receiver) {
    const sockaddr_in to = toEndpoint(settings.to);
    const tk::Fd sender = socketIn(settings.senderSpace, 0);
    Times times(settings.count);
    for (std::size_t i = 0; i < settings.count + 10; ++i) {
        const std::int64_t begun = now();
        send(sender, to);
        send(receiver, receive(receiver));
        (void)receive(sender);
        if (i >= 10) times.add(now() - begun);
    }
    return times;
}

/// One datagram of each flow, from a source port of its own.
Times newFlows(const Settings& settings, const tk::Fd& receiver) {
    const sockaddr_in to = toEndpoint(settings.to);
    std::vector<tk::Fd> senders;
    for (std::size_t i = 0; i < settings.count; ++i)
        senders.push_back(
            socketIn(settings.senderSpace, static_cast<std::uint16_t>(settings.firstSource + i)));
    Times times(settings.count);
    for (const tk::Fd& sender : senders) {
        const std::int64_t begun = now();
        send(sender, to);
        (void)receive(receiver);
        times.add(now() - begun);
    }
    return times;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app("Times datagrams that go from one network namespace to another, as one line of JSON.");
    Settings settings;
    app.add_option("--from", settings.senderSpace, "file of the sender's network namespace")->required();
    app.add_option("--at", settings.receiverSpace, "file of the receiver's")->required();
    app.add_option("--to", settings.to, "ADDRESS:PORT that the sender sends to")->required();
    app.add_option("--listen", settings.listen, "port at which they arrive")->required();
    app.add_option("--count", settings.count, "how many datagrams");
    app.add_option("--sources", settings.firstSource,
                   "each is the first of a flow: consecutive source ports from this one; else all are of one "
                   "flow, and there and back is timed");
    CLI11_PARSE(app, argc, argv);

    const tk::Fd receiver = socketIn(settings.receiverSpace, settings.listen);
    const Times times = settings.firstSource > 0 ? newFlows(settings, receiver) : oneFlow(settings, receiver);
    ::printf("{");
    times.print();
    ::printf("}\n");
    return 0;
}
