#include "net/sockets.h"

#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <string.h>
#include <sys/socket.h>

#include <utility>

#include "contract/ports.h"
#include "net/convert.h"
#include "tk/fd.h"
#include "tk/log.h"
#include "tk/platform.h"

namespace gateway {

// No blank between the version and "UPnP/1.0": clients see exactly this text.
const std::string serverString = "Quillnet/" + tk::getOSVersion() + "UPnP/1.0 Vantorel UPnP/1.0";

const std::string crlf = "\r\n";

namespace {

constexpr unsigned char multicastTtl = 4;
constexpr int listenQueue = 1;
constexpr std::chrono::seconds answerPatience{10};  // as a request has
constexpr std::size_t nameSize = 16;                // what SO_BINDTODEVICE takes; a full one has no '\0'

/// Opens a socket that never blocks and that no other program inherits.
tk::Fd open(int type) {
    return tk::Fd(::socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
}

bool bindToDevice(const tk::Fd& socket, const char* deviceName) {
    char name[nameSize] = {};
    memcpy(name, deviceName ? deviceName : "", deviceName ? strnlen(deviceName, nameSize) : 0);
    return ::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, name, sizeof name) == 0;
}

bool allowReuse(const tk::Fd& socket) {
    const int on = 1;
    return ::setsockopt(socket.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) == 0;
}

bool bindToPort(const tk::Fd& socket, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_ANY);
    return ::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool joinGroup(const tk::Fd& socket, int interfaceIndex, std::uint32_t interfaceAddress) {
    ip_mreqn membership{};
    membership.imr_multiaddr.s_addr = toAddress(contract::ssdpGroup);
    membership.imr_address.s_addr = interfaceAddress;
    membership.imr_ifindex = interfaceIndex;
    return ::setsockopt(socket.get(), IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
}

bool setMulticastTtl(const tk::Fd& socket) {
    return ::setsockopt(socket.get(), IPPROTO_IP, IP_MULTICAST_TTL, &multicastTtl, sizeof multicastTtl) == 0;
}

/// Logs the failure of a system call. The half-made socket closes with its owner.
int fail(const char* what) {
    tk::log(what, tk::errorText());
    return -1;
}

/// Sends as much as the socket takes, and returns how much that was.
std::size_t sendSome(int socket, std::string_view text) {
    const ssize_t sent = ::send(socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    return sent < 0 ? 0 : static_cast<std::size_t>(sent);
}

}  // namespace

int openUdpSocket(const char* deviceName) {
    tk::Fd socket = open(SOCK_DGRAM);
    if (!socket.isOpen()) return fail("udp socket: ");
    if (!bindToDevice(socket, deviceName)) return fail("udp setsockopt SO_BINDTODEVICE: ");
    return socket.release();
}

int openSsdpSocket(const char* deviceName, int interfaceIndex, std::uint32_t interfaceAddress) {
    tk::Fd socket(openUdpSocket(deviceName));
    if (!socket.isOpen()) return -1;
    if (!allowReuse(socket)) return fail("setsockopt SO_REUSEADDR: ");
    if (!bindToPort(socket, contract::ssdpPort)) return fail("udp bind: ");
    if (!joinGroup(socket, interfaceIndex, interfaceAddress)) return fail("setsockopt IP_ADD_MEMBERSHIP: ");
    if (!setMulticastTtl(socket)) return fail("setsockopt IP_MULTICAST_TTL: ");
    return socket.release();
}

int openTcpListener(const char* deviceName, int port) {
    tk::Fd socket = open(SOCK_STREAM);
    if (!socket.isOpen()) return fail("tcp socket: ");
    if (!bindToDevice(socket, deviceName)) return fail("setsockopt SO_BINDTODEVICE: ");
    if (!allowReuse(socket)) return fail("setsockopt SO_REUSEADDR: ");
    if (!bindToPort(socket, port)) return fail("tcp bind: ");
    limitUntaken(socket.get(), answerPatience);  // its connections inherit that
    if (::listen(socket.get(), listenQueue) != 0) return fail("tcp listen: ");
    return socket.release();
}

void limitUntaken(int socket, std::chrono::milliseconds time) {
    const unsigned milliseconds = static_cast<unsigned>(time.count());
    (void)::setsockopt(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, &milliseconds, sizeof milliseconds);
}

bool sendWhole(int socket, std::string_view text) {
    (void)tk::flushLog();
    const std::size_t sent = sendSome(socket, text);
    if (sent == text.size()) return true;
    // The kernel keeps twice this for the text and its own overhead.
    const int room = static_cast<int>(text.size());
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, sizeof room);  // at worst less goes out
    const std::string_view rest = text.substr(sent);
    return sendSome(socket, rest) == rest.size();
}

}  // namespace gateway
