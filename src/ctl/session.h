#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tk/bus.h"

namespace ctl {

/// How long the end of a request is waited for: a program that has to be started first needs more than one
/// that runs already. Units: milliseconds.
constexpr std::uint32_t requestTimeout = 20000;

/// An error's reason for people, also where it carries no text. When nobody answered, the program behind the
/// path that was asked is named, unless the path is empty.
[[nodiscard]] std::string reasonOf(const tk::message& error, const tk::Path& asked = {});

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

    /// The same, for commands that need a reply. Errors: throws Failure with the error's text.
    tk::message request(const tk::Path& path, std::uint32_t command, const tk::message& fields = {});

    /// All objects of the handler at `path`, over as many pages as it answers with.
    /// Errors: throws Failure when a page is refused, or continues where an earlier one did.
    [[nodiscard]] std::vector<tk::message> list(const tk::Path& path);

private:
    tk::Bus& bus;
};

}  // namespace ctl
