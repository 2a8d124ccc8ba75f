#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

#include <CLI/CLI.hpp>

#include "bench/arguments.h"
#include "bench/sockets.h"

using namespace bench;

// The least that a server can cost: system calls, and nothing beside them. What a peer does wrong is not
// handled, as the peer is one of ours.

namespace {

constexpr std::size_t readSize = 16384;

struct Settings {
    std::uint16_t port = 0;
    int backlog = 1;
    std::string answer;
    std::string notify;
    std::string subscriber;
    std::string group;
};

/// Answers one request: waits for it, and writes the same bytes whatever it says.
void serve(const tk::Fd& socket, const std::string& answer) {
    char bytes[readSize];
    if (::recv(socket.get(), bytes, sizeof bytes, 0) > 0) writeAll(socket, answer);
}

tk::Fd acceptFrom(const tk::Fd& listener) {
    return tk::Fd(::accept(listener.get(), nullptr, nullptr));
}

[[noreturn]] void http(const Settings& settings) {
    const tk::Fd listener = listenOn(settings.port, settings.backlog);
    const std::string answer = contentOf(settings.answer);
    for (;;) serve(acceptFrom(listener), answer);
}

/// As http, but the listener comes before every connection, so that its queue is short at any time.
[[noreturn]] void eager(const Settings& settings) {
    const tk::Fd listener = listenOn(settings.port, settings.backlog);
    const std::string answer = contentOf(settings.answer);
    std::vector<pollfd> waiting{{listener.get(), POLLIN, 0}};
    for (;;) {
        if (::poll(waiting.data(), waiting.size(), -1) < 0) fail("poll");
        if ((waiting.front().revents & POLLIN) != 0) {
            waiting.push_back({acceptFrom(listener).release(), POLLIN, 0});
            continue;
        }
        const auto ready = std::find_if(waiting.begin(), waiting.end(),
                                        [](const pollfd& each) { return each.revents != 0; });
        serve(tk::Fd(ready->fd), answer);
        waiting.erase(ready);
    }
}

/// Delivers one event after each request.
[[noreturn]] void events(const Settings& settings) {
    const tk::Fd listener = listenOn(settings.port, settings.backlog);
    const std::string answer = contentOf(settings.answer), notify = contentOf(settings.notify);
    const sockaddr_in subscriber = toEndpoint(settings.subscriber);
    for (;;) {
        serve(acceptFrom(listener), answer);
        char bytes[readSize];
        const tk::Fd socket = connectTo(subscriber);
        writeAll(socket, notify);
        if (::recv(socket.get(), bytes, sizeof bytes, 0) <= 0) fail("no reply to an event");
    }
}

/// Joins the group on the interface of an address: ADDRESS,GROUP is what the command line says.
void join(const tk::Fd& socket, const std::string& group) {
    ip_mreqn membership{};
    const std::size_t comma = group.find(',');
    membership.imr_address = toEndpoint(group.substr(0, comma) + ":0").sin_addr;
    membership.imr_multiaddr = toEndpoint(group.substr(comma + 1) + ":0").sin_addr;
    if (::setsockopt(socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) != 0)
        fail("IP_ADD_MEMBERSHIP");
}

[[noreturn]] void udp(const Settings& settings) {
    const tk::Fd socket = datagramsOn(settings.port);
    if (!settings.group.empty()) join(socket, settings.group);
    const std::string answer = contentOf(settings.answer);
    for (;;) {
        char bytes[readSize];
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        auto* generic = reinterpret_cast<sockaddr*>(&peer);
        if (::recvfrom(socket.get(), bytes, sizeof bytes, 0, generic, &length) < 0) fail("recvfrom");
        if (::sendto(socket.get(), answer.data(), answer.size(), 0, generic, length) < 0) fail("sendto");
    }
}

CLI::App* addCommand(CLI::App& app, Settings& settings, const std::string& name, const std::string& help) {
    CLI::App* command = app.add_subcommand(name, help);
    command->add_option("--port", settings.port, "where it serves")->required();
    command->add_option("--answer", settings.answer, "file with the bytes of every answer")->required();
    return command;
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "A server that costs the least: it answers whatever comes with the same bytes, until it is ended.");
    app.require_subcommand(1);
    Settings settings;

    CLI::App* httpCommand = addCommand(app, settings, "http", "accept, read, write, close");
    httpCommand->add_option("--backlog", settings.backlog, "of the listener");

    CLI::App* eagerCommand = addCommand(app, settings, "eager", "as http, but accepts before it reads");
    eagerCommand->add_option("--backlog", settings.backlog, "of the listener");

    CLI::App* udpCommand = addCommand(app, settings, "udp", "an answer to each datagram");
    udpCommand->add_option("--group", settings.group, "ADDRESS,GROUP to join on the address's interface");

    CLI::App* eventsCommand =
        addCommand(app, settings, "events", "as http, then one event to the subscriber");
    eventsCommand->add_option("--notify", settings.notify, "file with the bytes of every event")->required();
    eventsCommand->add_option("--subscriber", settings.subscriber, "ADDRESS:PORT")->required();

    CLI11_PARSE(app, argc, argv);
    if (httpCommand->parsed()) http(settings);
    if (eagerCommand->parsed()) eager(settings);
    if (udpCommand->parsed()) udp(settings);
    events(settings);
}
