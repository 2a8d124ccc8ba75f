#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "tk/fd.h"

namespace resolver::testing {

/// Response codes.
constexpr std::uint8_t noError = 0;
constexpr std::uint8_t serverFailure = 2;
constexpr std::uint8_t nameError = 3;

/// One question that arrived.
struct Query {
    std::string name;
    std::uint16_t type = 0;
    std::string packet;
    sockaddr_in from{};
};

/// One record of an answer. It belongs to the name that was asked for, or to the alias of the record before
/// it.
struct Record {
    std::uint16_t type = 0;
    std::uint32_t lifetimeSeconds = 0;
    std::string data;  // as in the packet
};

Record addressRecord(std::uint32_t address, std::uint32_t lifetimeSeconds);
/// Says that `alias` stands for the name before it.
Record aliasRecord(const std::string& alias, std::uint32_t lifetimeSeconds);

/// A name server on loopback that the test drives by hand. No wait is longer than five seconds.
class FakeDns {
public:
    FakeDns();

    /// Where it listens, in the form that the resolver takes.
    std::string address() const;
    /// Takes the next question.
    /// Errors: a query with an empty packet when none comes.
    Query take();
    /// True when no question is waiting.
    bool isQuiet() const;
    void answer(const Query& query, const std::vector<Record>& records, std::uint8_t code = noError);
    /// Sends raw bytes to the sender of the query.
    void send(const Query& query, std::string_view bytes);

private:
    tk::Fd socket;
};

}  // namespace resolver::testing
