#include "services/portmap.h"

#include <netinet/in.h>

#include <tuple>

#include "net/convert.h"

namespace gateway {

namespace {

constexpr std::int32_t tcp = 0;
constexpr std::int32_t udp = 1;

}  // namespace

bool Id::operator<(const Id& other) const {
    return std::tie(port, protocol) < std::tie(other.port, other.protocol);
}

Id toId(const std::string& externalPort, const std::string& protocol) {
    return {static_cast<std::uint16_t>(toUnsigned(externalPort)), protocol == "TCP" ? tcp : udp};
}

const char* protocolName(std::int32_t protocol) {
    return protocol == tcp ? "TCP" : "UDP";
}

std::uint8_t ipProtocol(const Id& id) {
    return id.protocol == tcp ? IPPROTO_TCP : IPPROTO_UDP;
}

}  // namespace gateway
