#include "doctor/search.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>

#include "contract/ports.h"
#include "http/httpmessage.h"
#include "net/convert.h"

namespace doctor {

namespace {

constexpr std::chrono::milliseconds patience{1500};
constexpr std::size_t gatewaysAtMost = 32;
constexpr std::size_t serverLength = 200;
constexpr std::size_t datagramSize = 2048;
constexpr const char* kind = "urn:schemas-upnp-org:device:InternetGatewayDevice:";

std::string searchText() {
    return std::string("M-SEARCH * HTTP/1.1\r\nHOST: ") + contract::ssdpGroup + ':' +
           std::to_string(contract::ssdpPort) + "\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\nST: " + kind +
           "1\r\n\r\n";
}

sockaddr_in placeOf(std::uint32_t address, std::uint16_t port) {
    sockaddr_in place{};
    place.sin_family = AF_INET;
    place.sin_addr.s_addr = address;
    place.sin_port = htons(port);
    return place;
}

/// A socket at the address, whose search was sent; not open when that failed.
tk::Fd searchFrom(const SearchPlace& place) {
    tk::Fd socket(::socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const sockaddr_in own = placeOf(place.address, 0);
    if (!socket.isOpen() || ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0)
        return tk::Fd();
    ip_mreqn way{};
    way.imr_address.s_addr = place.address;
    way.imr_ifindex = static_cast<int>(place.index);
    const unsigned char off = 0;
    if (::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_IF, &way, sizeof way) != 0 ||
        ::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_LOOP, &off, sizeof off) != 0)
        return tk::Fd();
    const std::string text = searchText();
    const sockaddr_in group = placeOf(::inet_addr(contract::ssdpGroup), contract::ssdpPort);
    if (::sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&group), sizeof group) < 0)
        return tk::Fd();
    return socket;
}

}  // namespace

GatewaySearch::GatewaySearch(const std::vector<SearchPlace>& places) : end(Clock::now() + patience) {
    for (const SearchPlace& place : places)
        if (tk::Fd socket = searchFrom(place); socket.isOpen())
            sockets.push_back({place.interface, std::move(socket)});
}

std::vector<OtherGateway> GatewaySearch::finish(const std::vector<machine::Address>& own) {
    std::vector<OtherGateway> found;
    std::vector<pollfd> waiting;
    for (const Socket& socket : sockets) waiting.push_back({socket.descriptor.get(), POLLIN, 0});
    while (!sockets.empty() && found.size() < gatewaysAtMost) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0 || ::poll(waiting.data(), waiting.size(), static_cast<int>(left)) <= 0) break;
        for (const Socket& socket : sockets) receive(socket, own, found);
    }
    return found;
}

void GatewaySearch::receive(const Socket& socket, const std::vector<machine::Address>& own,
                            std::vector<OtherGateway>& out) const {
    char bytes[datagramSize];
    sockaddr_in from{};
    socklen_t size = sizeof from;
    const ssize_t count = ::recvfrom(socket.descriptor.get(), bytes, sizeof bytes, MSG_DONTWAIT,
                                     reinterpret_cast<sockaddr*>(&from), &size);
    if (count <= 0) return;
    const auto server = serverIn(std::string_view(bytes, static_cast<std::size_t>(count)));
    const auto isOwn = [&](const machine::Address& address) {
        return address.address == from.sin_addr.s_addr;
    };
    if (!server || std::any_of(own.begin(), own.end(), isOwn)) return;
    const OtherGateway gateway{socket.interface, gateway::ipToString(from.sin_addr.s_addr), *server};
    const auto isSame = [&](const OtherGateway& other) {
        return other.interface == gateway.interface && other.address == gateway.address;
    };
    if (std::none_of(out.begin(), out.end(), isSame)) out.push_back(gateway);
}

std::optional<std::string> serverIn(std::string_view answer) {
    const gateway::HTTPMessage message(answer);
    if (!message.title.starts_with("HTTP/1.1 200") || !message.get("ST").starts_with(kind))
        return std::nullopt;
    return message.get("SERVER").substr(0, serverLength);
}

}  // namespace doctor
