#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ctl/failure.h"
#include "tk/bus.h"
#include "tk/busconnection.h"
#include "tk/runner.h"

namespace ctl {

/// How long a request may take. A program that has to be started first needs longer than one that already
/// runs.
/// Units: milliseconds.
constexpr std::uint32_t requestTimeout = 20000;

/// What an error means for people, even if the error carries no text. When nobody answered, it names the
/// program at the path `asked`, unless that is empty, and advises how to start it.
[[nodiscard]] Failure failureFrom(const tk::message& error, const tk::Path& asked = {});

/// tkctl's connection to the hub. It registers no program and handles no signal: an interrupt ends a waiting
/// command like any other.
class Connection {
public:
    /// Connects to the hub. Without a receiver, a lost bus shows only when a request fails.
    /// Errors: throws Unreachable when the hub cannot be reached.
    /// Lifetime: `receiver` outlives the connection.
    explicit Connection(const std::string& socketPath, tk::BusConnection::Receiver* receiver = nullptr);

    /// The bus that requests go to.
    tk::Bus& bus() { return *connection; }
    /// The runner whose turns hand received messages to the receiver.
    tk::Runner& runner() { return events; }

private:
    tk::SystemClock clock;
    tk::Runner events{clock};
    std::unique_ptr<tk::BusConnection> connection;
};

/// Sends requests over the bus, as a client without a path of its own.
class Session {
public:
    /// Lifetime: the bus outlives the session.
    /// Units: `timeout`, for requests that name none, is in milliseconds.
    explicit Session(tk::Bus& bus, std::uint32_t timeout = requestTimeout)
        : bus(bus), usualTimeout(timeout) {}

    /// A session over the same bus with another time-out.
    [[nodiscard]] Session waiting(std::uint32_t timeout) const { return Session(bus, timeout); }

    /// Sends `fields` with `command` to `path`, the destination first, and waits for the end of the request.
    /// Returns the reply or error with its routing fields.
    /// Units: `timeout` is in milliseconds.
    [[nodiscard]] tk::message exchange(const tk::Path& path, std::uint32_t command, const tk::message& fields,
                                       std::uint32_t timeout);
    /// The same with the session's time-out.
    [[nodiscard]] tk::message exchange(const tk::Path& path, std::uint32_t command,
                                       const tk::message& fields = {}) {
        return exchange(path, command, fields, usualTimeout);
    }

    /// The same for commands that need a reply.
    /// Errors: throws Failure with the error's text.
    tk::message request(const tk::Path& path, std::uint32_t command, const tk::message& fields = {});

    /// All objects of the handler at `path`, from all pages of its answer. `query` is what each request says.
    /// Errors: throws Failure when a page is refused, or continues at the same place as an earlier one.
    [[nodiscard]] std::vector<tk::message> list(const tk::Path& path, tk::message query = {});

private:
    tk::Bus& bus;
    std::uint32_t usualTimeout;
};

}  // namespace ctl
