#include "fuzz/gateway/network.h"

#include <errno.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "contract/ports.h"
#include "fuzz/target.h"
#include "tk/status.h"

namespace fuzz {

namespace {

constexpr int firstDescriptor = 4096;       // above those that the process has from the kernel
constexpr std::size_t queueLength = 2;      // what a listener's queue of 1 takes
constexpr std::uint64_t longestRest = 100;  // milliseconds

int refuse(int error) {
    errno = error;
    return -1;
}

}  // namespace

Network::Network(std::function<std::uint64_t()> now) : now(std::move(now)) {
    lead(this);
}

Network::~Network() {
    lead(nullptr);
}

Link* Network::connect(const std::string& device, std::uint32_t host) {
    Socket* const listener = find(Socket::Kind::listener, device, contract::httpPort);
    if (!listener || listener->queue.size() >= queueLength) return nullptr;
    Link& link = *links.emplace_back(std::make_unique<Link>());
    link.device = device;
    link.host = host;
    link.openedAt = now();
    listener->queue.push_back(&link);
    return &link;
}

bool Network::sendDatagram(const std::string& device, std::uint32_t host, const std::string& bytes) {
    Socket* const listener = find(Socket::Kind::datagram, device, contract::ssdpPort);
    if (!listener) return false;
    listener->received.emplace_back(host, bytes);
    return true;
}

std::vector<int> Network::openDescriptors() const {
    std::vector<int> open;
    for (std::size_t i = 0; i < sockets.size(); ++i)
        if (sockets[i] && sockets[i]->kind != Socket::Kind::set)
            open.push_back(firstDescriptor + static_cast<int>(i));
    return open;
}

std::vector<int> Network::watchedDescriptors() const {
    std::vector<int> watched;
    for (const auto& socket : sockets) {
        if (!socket || socket->kind != Socket::Kind::set) continue;
        for (const auto& [descriptor, event] : socket->watched) watched.push_back(descriptor);
    }
    std::sort(watched.begin(), watched.end());
    watched.erase(std::unique(watched.begin(), watched.end()), watched.end());
    return watched;
}

Link* Network::linkOf(int descriptor) const {
    const Socket* const socket = find(descriptor);
    return socket ? socket->link : nullptr;
}

bool Network::isAnythingReady() const {
    for (const auto& socket : sockets) {
        if (!socket) continue;
        for (const auto& [descriptor, event] : socket->watched)
            if (readiness(*find(descriptor)) & (event.events | EPOLLERR | EPOLLHUP)) return true;
    }
    return false;
}

bool Network::owns(int descriptor) const {
    return descriptor >= firstDescriptor;
}

Network::Socket* Network::find(int descriptor) const {
    const auto index = static_cast<std::size_t>(descriptor - firstDescriptor);
    return descriptor >= firstDescriptor && index < sockets.size() ? sockets[index].get() : nullptr;
}

Network::Socket* Network::find(Socket::Kind kind, const std::string& device, std::uint16_t port) const {
    for (const auto& socket : sockets)
        if (socket && socket->kind == kind && socket->device == device && socket->port == port)
            return socket.get();
    return nullptr;
}

int Network::add(Socket::Kind kind) {
    auto place = std::find(sockets.begin(), sockets.end(), nullptr);
    if (place == sockets.end()) place = sockets.emplace(place);
    *place = std::make_unique<Socket>();
    (*place)->kind = kind;
    return firstDescriptor + static_cast<int>(place - sockets.begin());
}

bool Network::fails(Call call) {
    const auto failure = failures.find(call);
    if (failure == failures.end() || failure->second.after-- > 0) return false;
    errno = failure->second.error;
    failures.erase(failure);
    hasFailed = true;
    return true;
}

std::uint32_t Network::readiness(const Socket& socket) const {
    if (socket.kind == Socket::Kind::listener) return socket.queue.empty() ? 0U : EPOLLIN;
    if (socket.kind == Socket::Kind::datagram) return socket.received.empty() ? 0U : EPOLLIN;
    const Link* const link = socket.link;
    if (!link) return 0;
    if (link->hostReset || link->state == Link::State::refused)
        return EPOLLIN | EPOLLOUT | EPOLLERR | EPOLLHUP;
    if (link->state == Link::State::connecting) return 0;
    const bool isReadable = link->hostEnded || link->taken < link->sent.size();
    return EPOLLOUT | (isReadable ? EPOLLIN : 0U);
}

int Network::socket(int type) {
    if (fails(Call::socket)) return -1;
    return add((type & 0xF) == SOCK_DGRAM ? Socket::Kind::datagram : Socket::Kind::stream);
}

int Network::setOption(int descriptor, int level, int option, const void* value, std::size_t size) {
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    if (fails(Call::setsockopt)) {
        if (socket->link && level == SOL_SOCKET) socket->link->sendFailed = true;  // no room for the rest
        return -1;
    }
    if (level != SOL_SOCKET) return 0;
    const auto* const bytes = static_cast<const char*>(value);
    if (option == SO_BINDTODEVICE) socket->device.assign(bytes, ::strnlen(bytes, size));
    int number = 0;
    if (option == SO_SNDBUF && size == sizeof number && socket->link) {
        std::memcpy(&number, value, sizeof number);
        socket->link->room += 2 * static_cast<std::size_t>(number);
    }
    return 0;
}

int Network::bind(int descriptor, std::uint16_t port) {
    if (fails(Call::bind)) return -1;
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    const bool isTaken = find(Socket::Kind::listener, socket->device, port) != nullptr;
    if (socket->kind == Socket::Kind::stream && isTaken) return refuse(EADDRINUSE);
    socket->port = port;
    return 0;
}

int Network::listen(int descriptor) {
    if (fails(Call::listen)) return -1;
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    socket->kind = Socket::Kind::listener;
    return 0;
}

std::vector<int> Network::restingListeners() const {
    std::vector<int> resting;
    for (std::size_t i = 0; i < sockets.size(); ++i)
        if (sockets[i] && sockets[i]->isResting) resting.push_back(firstDescriptor + static_cast<int>(i));
    return resting;
}

bool Network::isKeptWaiting(const Link& link) const {
    return std::any_of(sockets.begin(), sockets.end(), [&link](const auto& socket) {
        return socket && socket->isResting &&
               std::find(socket->queue.begin(), socket->queue.end(), &link) != socket->queue.end();
    });
}

int Network::accept(int descriptor, sockaddr_in* peer) {
    Socket* const listener = find(descriptor);
    if (!listener) return refuse(EBADF);
    if (fails(Call::accept)) {
        listener->isResting = tk::isShortage(errno);
        if (listener->isResting) restEnds = now() + longestRest;
        return -1;
    }
    if (listener->queue.empty()) return refuse(EAGAIN);
    Link* const link = listener->queue.front();
    listener->queue.pop_front();
    const int accepted = add(Socket::Kind::stream);  // the listener may have moved, but not what it points to
    find(accepted)->link = link;
    link->isAccepted = true;
    link->descriptor = accepted;
    link->openedAt = now();
    if (!peer) return accepted;
    *peer = {};
    peer->sin_family = AF_INET;
    peer->sin_addr.s_addr = link->host;
    return accepted;
}

int Network::connectTo(int descriptor, const sockaddr_in& target) {
    if (fails(Call::connect)) return -1;
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    if (peers == Peers::unreachable) return refuse(ENETUNREACH);
    Link& link = *links.emplace_back(std::make_unique<Link>());
    link.isOutgoing = true;
    link.host = target.sin_addr.s_addr;
    link.port = ntohs(target.sin_port);
    link.descriptor = descriptor;
    link.openedAt = now();
    link.state = peers == Peers::hang     ? Link::State::connecting
                 : peers == Peers::refuse ? Link::State::refused
                                          : Link::State::up;
    socket->link = &link;
    return refuse(EINPROGRESS);
}

std::ptrdiff_t Network::receive(int descriptor, char* bytes, std::size_t size, sockaddr_in* from) {
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    const bool failed = fails(Call::receive);
    if (socket->kind == Socket::Kind::datagram)
        return failed ? -1 : receiveDatagram(*socket, bytes, size, from);
    if (!socket->link) return refuse(ENOTCONN);
    if (!failed) return receiveStream(*socket->link, bytes, size);
    // Who waits for a reply takes every failure for the end of it.
    if (socket->link->isOutgoing || (errno != EAGAIN && errno != EINTR)) socket->link->processSawEnd = true;
    return -1;
}

std::ptrdiff_t Network::receiveDatagram(Socket& socket, char* bytes, std::size_t size, sockaddr_in* from) {
    if (socket.received.empty()) return refuse(EAGAIN);
    const auto [host, text] = socket.received.front();
    socket.received.pop_front();
    const std::size_t length = text.copy(bytes, size);
    *from = {};
    from->sin_family = AF_INET;
    from->sin_addr.s_addr = host;
    from->sin_port = htons(contract::ssdpPort);
    return static_cast<std::ptrdiff_t>(length);
}

std::ptrdiff_t Network::receiveStream(Link& link, char* bytes, std::size_t size) {
    if (link.hostReset || link.state == Link::State::refused) {
        link.processSawEnd = true;
        return refuse(link.hostReset ? ECONNRESET : ECONNREFUSED);
    }
    const std::size_t length = std::min(size, link.sent.size() - link.taken);
    if (length == 0 && !link.hostEnded) return refuse(EAGAIN);
    if (length == 0) link.processSawEnd = true;
    link.sent.copy(bytes, length, link.taken);
    link.taken += length;
    if (length > 0) onReceive(link);
    return static_cast<std::ptrdiff_t>(length);
}

std::ptrdiff_t Network::send(int descriptor, const char* bytes, std::size_t size, const sockaddr_in* to) {
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    const bool failed = fails(Call::send);
    if (socket->link && failed) {
        socket->link->sendFailed = true;
        return -1;
    }
    if (socket->link) return sendStream(*socket->link, bytes, size);
    require(to != nullptr, "a datagram goes somewhere");
    onDatagram({descriptor, to->sin_addr.s_addr, failed ? std::string() : std::string(bytes, size)});
    return failed ? -1 : static_cast<std::ptrdiff_t>(size);
}

std::ptrdiff_t Network::sendStream(Link& link, const char* bytes, std::size_t size) {
    if (link.hostReset || link.state != Link::State::up) {
        link.sendFailed = true;
        return refuse(EPIPE);
    }
    const std::size_t length = std::min(size, link.room);
    if (length == 0 && size > 0) return refuse(EAGAIN);
    link.room -= length;
    link.answer.append(bytes, length);
    onSend(link);
    return static_cast<std::ptrdiff_t>(length);
}

int Network::control() {
    return fails(Call::control) ? -1 : 0;
}

int Network::close(int descriptor) {
    Socket* const socket = find(descriptor);
    if (!socket) return refuse(EBADF);
    const auto closed = std::move(sockets[static_cast<std::size_t>(descriptor - firstDescriptor)]);
    for (const auto& set : sockets)
        if (set) set->watched.erase(descriptor);
    if (closed->link) {
        closed->link->processClosed = true;
        closed->link->descriptor = -1;
    }
    for (Link* const waiting : closed->queue) waiting->processClosed = true;
    onClose(descriptor);
    return 0;
}

int Network::makeSet() {
    return add(Socket::Kind::set);
}

int Network::changeSet(int set, int operation, int descriptor, const epoll_event* event) {
    Socket* const owner = find(set);
    if (!owner || !find(descriptor)) return refuse(EBADF);
    const bool isThere = owner->watched.contains(descriptor);
    if (operation == EPOLL_CTL_ADD && isThere) return refuse(EEXIST);
    if (operation != EPOLL_CTL_ADD && !isThere) return refuse(ENOENT);
    if (operation == EPOLL_CTL_DEL)
        owner->watched.erase(descriptor);
    else
        owner->watched[descriptor] = *event;
    if (operation == EPOLL_CTL_ADD) find(descriptor)->isResting = false;
    return 0;
}

int Network::wait(int set, epoll_event* events, int size) {
    const Socket* const owner = find(set);
    if (!owner) return refuse(EBADF);
    std::vector<epoll_event> ready;
    for (const auto& [descriptor, wanted] : owner->watched) {
        const std::uint32_t seen = readiness(*find(descriptor)) & (wanted.events | EPOLLERR | EPOLLHUP);
        if (seen == 0) continue;
        ready.push_back(wanted);
        ready.back().events = seen;
    }
    if (isReversed) std::reverse(ready.begin(), ready.end());
    const int count = std::min(size, static_cast<int>(ready.size()));
    std::copy_n(ready.begin(), count, events);
    return count;
}

}  // namespace fuzz
