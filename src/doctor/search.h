#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "doctor/facts.h"
#include "tk/fd.h"

namespace doctor {

/// An address of the router to search from. A value.
/// Byte order: network.
struct SearchPlace {
    std::string interface;
    std::uint32_t index = 0;
    std::uint32_t address = 0;
};

/// One search for gateways, which its destructor ends.
class GatewaySearch {
public:
    /// Sends the search from each place. It leaves by that interface alone, and is not heard by programs of
    /// the router itself.
    explicit GatewaySearch(const std::vector<SearchPlace>& places);

    /// Waits until a second and a half after the search, and returns who answered, each once for each
    /// interface. Answers from the `own` addresses do not count.
    [[nodiscard]] std::vector<OtherGateway> finish(const std::vector<machine::Address>& own);

private:
    struct Socket {
        std::string interface;
        tk::Fd descriptor;
    };
    using Clock = std::chrono::steady_clock;

    void receive(const Socket& socket, const std::vector<machine::Address>& own,
                 std::vector<OtherGateway>& out) const;

    std::vector<Socket> sockets;
    Clock::time_point end;
};

/// The SERVER text of an answer to the search, which is read as the daemon reads messages: lines end in CRLF.
/// Errors: none when the text is no such answer.
[[nodiscard]] std::optional<std::string> serverIn(std::string_view answer);

}  // namespace doctor
