#include "resolver/testing/fakedns.h"

#include <arpa/inet.h>
#include <poll.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <cstring>

namespace resolver::testing {

namespace {

constexpr int patienceMilliseconds = 5000;
constexpr std::size_t headerSize = 12;
constexpr std::size_t largest = 4096;
constexpr std::uint16_t addressType = 1;
constexpr std::uint16_t aliasType = 5;

std::string be16(std::uint32_t value) {
    return {static_cast<char>(value >> 8 & 0xFF), static_cast<char>(value & 0xFF)};
}
std::string be32(std::uint32_t value) {
    return be16(value >> 16) + be16(value);
}
std::uint8_t byteAt(const std::string& packet, std::size_t offset) {
    return offset < packet.size() ? static_cast<std::uint8_t>(packet[offset]) : std::uint8_t{0};
}

/// Reads the name at `offset`, and moves `offset` past it.
std::string readName(const std::string& packet, std::size_t& offset) {
    std::string name;
    while (const std::size_t length = byteAt(packet, offset)) {
        if (offset + length >= packet.size()) break;
        name += (name.empty() ? "" : ".") + packet.substr(offset + 1, length);
        offset += length + 1;
    }
    ++offset;
    return name;
}

std::string wireName(const std::string& name) {
    std::string wire;
    for (std::size_t start = 0; start < name.size();) {
        const std::size_t end = std::min(name.find('.', start), name.size());
        wire += static_cast<char>(end - start) + name.substr(start, end - start);
        start = end + 1;
    }
    return wire + '\0';
}

}  // namespace

Record addressRecord(std::uint32_t address, std::uint32_t lifetimeSeconds) {
    return {addressType, lifetimeSeconds, be32(ntohl(address))};
}

Record aliasRecord(const std::string& alias, std::uint32_t lifetimeSeconds) {
    return {aliasType, lifetimeSeconds, wireName(alias)};
}

FakeDns::FakeDns() : socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in own{};
    own.sin_family = AF_INET;
    own.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) ::abort();
}

std::string FakeDns::address() const {
    sockaddr_in own{};
    socklen_t length = sizeof own;
    if (::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&own), &length) != 0) ::abort();
    return "127.0.0.1:" + std::to_string(ntohs(own.sin_port));
}

Query FakeDns::take() {
    pollfd waiting{socket.get(), POLLIN, 0};
    if (::poll(&waiting, 1, patienceMilliseconds) != 1) return {};
    Query query;
    query.packet.resize(largest);
    socklen_t length = sizeof query.from;
    const ssize_t count = ::recvfrom(socket.get(), query.packet.data(), largest, 0,
                                     reinterpret_cast<sockaddr*>(&query.from), &length);
    query.packet.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    std::size_t offset = headerSize;
    query.name = readName(query.packet, offset);
    query.type =
        static_cast<std::uint16_t>(byteAt(query.packet, offset) << 8 | byteAt(query.packet, offset + 1));
    return query;
}

bool FakeDns::isQuiet() const {
    pollfd waiting{socket.get(), POLLIN, 0};
    return ::poll(&waiting, 1, 0) == 0;
}

void FakeDns::answer(const Query& query, const std::vector<Record>& records, std::uint8_t code) {
    std::size_t end = headerSize;
    (void)readName(query.packet, end);
    const std::string question = query.packet.substr(headerSize, end + 4 - headerSize);
    std::string packet = query.packet.substr(0, 2) + '\x81' + static_cast<char>(0x80 | code) + be16(1) +
                         be16(static_cast<std::uint32_t>(records.size())) + be16(0) + be16(0) + question;
    std::string owner = wireName(query.name);
    for (const Record& record : records) {
        packet += owner + be16(record.type) + be16(1) + be32(record.lifetimeSeconds) +
                  be16(static_cast<std::uint32_t>(record.data.size())) + record.data;
        if (record.type == aliasType) owner = record.data;
    }
    send(query, packet);
}

void FakeDns::send(const Query& query, std::string_view bytes) {
    const ssize_t sent = ::sendto(socket.get(), bytes.data(), bytes.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&query.from), sizeof query.from);
    if (sent != static_cast<ssize_t>(bytes.size())) ::abort();
}

}  // namespace resolver::testing
