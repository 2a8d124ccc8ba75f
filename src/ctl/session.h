#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tk/bus.h"
#include "tk/busconnection.h"
#include "tk/runner.h"

namespace ctl {

/// How long the end of a request is waited for: a program that has to be started first needs more than one
/// that runs already.
/// Units: milliseconds.
constexpr std::uint32_t requestTimeout = 20000;

/// An error's reason for people, also where it carries no text. When nobody answered, the program behind the
/// path that was asked is named, unless the path is empty.
[[nodiscard]] std::string reasonOf(const tk::message& error, const tk::Path& asked = {});

/// tkctl's connection to the hub. No program is registered, and no signal is touched: a command that waits is
/// ended by an interrupt like any other.
class Connection {
public:
    /// Connects to the hub. Without a receiver a lost bus shows in the request that fails.
    /// Errors: throws Failure when the hub cannot be reached.
    /// Lifetime: `receiver` outlives the connection.
    explicit Connection(const std::string& socketPath, tk::BusConnection::Receiver* receiver = nullptr);

    /// What requests go to.
    tk::Bus& bus() { return *connection; }
    /// What is received is handed to the receiver in the turns of this runner.
    tk::Runner& runner() { return events; }

private:
    tk::SystemClock clock;
    tk::Runner events{clock};
    std::unique_ptr<tk::BusConnection> connection;
};

/// Requests over the bus, as a client that has no path of its own.
class Session {
public:
    /// Lifetime: the bus outlives the session.
    explicit Session(tk::Bus& bus) : bus(bus) {}

    /// Sends `fields` with `command` to `path`, the destination in front, and waits for the end of the
    /// request. Returns what came, be it an error, with its routing fields.
    [[nodiscard]] tk::message exchange(const tk::Path& path, std::uint32_t command,
                                       const tk::message& fields = {},
                                       std::uint32_t timeout = requestTimeout);

    /// The same, for commands that need a reply.
    /// Errors: throws Failure with the error's text.
    tk::message request(const tk::Path& path, std::uint32_t command, const tk::message& fields = {});

    /// All objects of the handler at `path`, over as many pages as it answers with.
    /// Errors: throws Failure when a page is refused, or continues where an earlier one did.
    [[nodiscard]] std::vector<tk::message> list(const tk::Path& path);

private:
    tk::Bus& bus;
};

}  // namespace ctl
