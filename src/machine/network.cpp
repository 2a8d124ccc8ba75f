#include "machine/network.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>

#include "net/convert.h"

namespace machine {

namespace {

constexpr unsigned addressBits = 32;

struct Range {
    std::uint32_t address;  // in host order
    unsigned length;
    Reach reach;
};

constexpr Range ranges[] = {
    {0x0A000000, 8, Reach::site},       // 10.0.0.0
    {0xAC100000, 12, Reach::site},      // 172.16.0.0
    {0xC0A80000, 16, Reach::site},      // 192.168.0.0
    {0x64400000, 10, Reach::shared},    // 100.64.0.0
    {0xA9FE0000, 16, Reach::link},      // 169.254.0.0
    {0x00000000, 8, Reach::reserved},   // this network
    {0x7F000000, 8, Reach::reserved},   // loopback
    {0xC0000200, 24, Reach::reserved},  // 192.0.2.0, documentation
    {0xC6336400, 24, Reach::reserved},  // 198.51.100.0, documentation
    {0xCB007100, 24, Reach::reserved},  // 203.0.113.0, documentation
    {0xE0000000, 3, Reach::reserved},   // multicast, and above it
};

/// In network order.
std::uint32_t maskOf(unsigned length) {
    return length == 0 ? 0 : htonl(~std::uint32_t{0} << (addressBits - length));
}

Network networkOf(const Range& range) {
    return {htonl(range.address), range.length};
}

}  // namespace

bool Network::contains(std::uint32_t candidate) const {
    return (candidate & maskOf(length)) == address;
}

bool Network::contains(const Network& other) const {
    return length <= other.length && contains(other.address);
}

std::string Network::text() const {
    return gateway::ipToString(address) + '/' + std::to_string(length);
}

Network networkOf(std::uint32_t address, unsigned length) {
    return {address & maskOf(length), length};
}

std::optional<std::uint32_t> parseIPv4(const std::string& text) {
    in_addr parsed{};
    if (text.find('\0') != std::string::npos || ::inet_pton(AF_INET, text.c_str(), &parsed) != 1)
        return std::nullopt;
    return parsed.s_addr;
}

std::optional<Network> parseNetwork(const std::string& text) {
    if (text == "default") return Network{};
    const std::size_t slash = text.find('/');
    const auto address = parseIPv4(text.substr(0, slash));
    if (!address) return std::nullopt;
    if (slash == std::string::npos) return Network{*address, addressBits};
    unsigned length = 0;
    const char* end = text.data() + text.size();
    const auto read = std::from_chars(text.data() + slash + 1, end, length);
    if (read.ec != std::errc() || read.ptr != end || length > addressBits) return std::nullopt;
    return networkOf(*address, length);
}

Reach reachOf(std::uint32_t address) {
    for (const Range& range : ranges)
        if (networkOf(range).contains(address)) return range.reach;
    return Reach::everywhere;
}

const char* reachWord(Reach reach) {
    switch (reach) {
        case Reach::site:
            return "private";
        case Reach::shared:
            return "shared";
        case Reach::link:
            return "link-local";
        case Reach::everywhere:
        case Reach::reserved:
            break;
    }
    return nullptr;
}

std::optional<std::uint32_t> innerAddressOf(const std::vector<std::uint32_t>& addresses) {
    const auto isInner = [](std::uint32_t address) { return reachWord(reachOf(address)) != nullptr; };
    if (addresses.empty() || !std::all_of(addresses.begin(), addresses.end(), isInner)) return std::nullopt;
    return addresses.front();
}

bool isPrivate(const Network& network) {
    for (const Range& range : ranges)
        if (networkOf(range).contains(network)) return true;
    return false;
}

}  // namespace machine
