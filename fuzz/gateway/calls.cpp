// What the linker calls instead of the kernel's functions. Each calls the network if there is one and the descriptor
// is one of its own, else the function itself.

#include <fcntl.h>
#include <poll.h>
#include <stdarg.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <uuid/uuid.h>

#include <cstring>

#include "fuzz/gateway/network.h"

namespace {

fuzz::Network* leading = nullptr;
std::uint32_t uuids = 0;  // handed out to the present network's process

bool leads(int descriptor) {
    return leading && leading->owns(descriptor);
}

const sockaddr_in* asInternet(const sockaddr* address) {
    return reinterpret_cast<const sockaddr_in*>(address);
}

sockaddr_in* asInternet(sockaddr* address) {
    return reinterpret_cast<sockaddr_in*>(address);
}

}  // namespace

namespace fuzz {

void lead(Network* network) {
    leading = network;
    uuids = 0;
}

}  // namespace fuzz

// The linker makes these names.
extern "C" {

int __real_socket(int domain, int type, int protocol);
int __real_setsockopt(int fd, int level, int option, const void* value, socklen_t size);
int __real_bind(int fd, const sockaddr* address, socklen_t size);
int __real_listen(int fd, int queue);
int __real_accept4(int fd, sockaddr* peer, socklen_t* size, int flags);
int __real_connect(int fd, const sockaddr* target, socklen_t size);
ssize_t __real_recv(int fd, void* bytes, size_t size, int flags);
ssize_t __real_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* fromSize);
ssize_t __real_send(int fd, const void* bytes, size_t size, int flags);
ssize_t __real_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t toSize);
int __real_close(int fd);
int __real_fcntl(int fd, int command, ...);
int __real_epoll_create1(int flags);
int __real_epoll_ctl(int set, int operation, int fd, epoll_event* event);
int __real_epoll_wait(int set, epoll_event* events, int size, int limit);
ssize_t __real_write(int fd, const void* bytes, size_t size);
int __real_poll(pollfd* targets, nfds_t count, int limit);
void __real_uuid_generate(uuid_t out);

int __wrap_socket(int domain, int type, int protocol) {
    return leading ? leading->socket(type) : __real_socket(domain, type, protocol);
}

int __wrap_setsockopt(int fd, int level, int option, const void* value, socklen_t size) {
    return leads(fd) ? leading->setOption(fd, level, option, value, size)
                     : __real_setsockopt(fd, level, option, value, size);
}

int __wrap_bind(int fd, const sockaddr* address, socklen_t size) {
    return leads(fd) ? leading->bind(fd, ntohs(asInternet(address)->sin_port))
                     : __real_bind(fd, address, size);
}

int __wrap_listen(int fd, int queue) {
    return leads(fd) ? leading->listen(fd) : __real_listen(fd, queue);
}

int __wrap_accept4(int fd, sockaddr* peer, socklen_t* size, int flags) {
    return leads(fd) ? leading->accept(fd, asInternet(peer)) : __real_accept4(fd, peer, size, flags);
}

int __wrap_connect(int fd, const sockaddr* target, socklen_t size) {
    return leads(fd) ? leading->connectTo(fd, *asInternet(target)) : __real_connect(fd, target, size);
}

ssize_t __wrap_recv(int fd, void* bytes, size_t size, int flags) {
    return leads(fd) ? leading->receive(fd, static_cast<char*>(bytes), size, nullptr)
                     : __real_recv(fd, bytes, size, flags);
}

ssize_t __wrap_recvfrom(int fd, void* bytes, size_t size, int flags, sockaddr* from, socklen_t* fromSize) {
    return leads(fd) ? leading->receive(fd, static_cast<char*>(bytes), size, asInternet(from))
                     : __real_recvfrom(fd, bytes, size, flags, from, fromSize);
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int flags) {
    return leads(fd) ? leading->send(fd, static_cast<const char*>(bytes), size, nullptr)
                     : __real_send(fd, bytes, size, flags);
}

ssize_t __wrap_sendto(int fd, const void* bytes, size_t size, int flags, const sockaddr* to,
                      socklen_t toSize) {
    return leads(fd) ? leading->send(fd, static_cast<const char*>(bytes), size, asInternet(to))
                     : __real_sendto(fd, bytes, size, flags, to, toSize);
}

int __wrap_close(int fd) {
    return leads(fd) ? leading->close(fd) : __real_close(fd);
}

int __wrap_fcntl(int fd, int command, ...) {
    if (leads(fd)) return leading->control();
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);  // as wide as any argument there is
    va_end(rest);
    return __real_fcntl(fd, command, argument);
}

int __wrap_epoll_create1(int flags) {
    return leading ? leading->makeSet() : __real_epoll_create1(flags);
}

int __wrap_epoll_ctl(int set, int operation, int fd, epoll_event* event) {
    return leads(set) ? leading->changeSet(set, operation, fd, event)
                      : __real_epoll_ctl(set, operation, fd, event);
}

int __wrap_epoll_wait(int set, epoll_event* events, int size, int limit) {
    return leads(set) ? leading->wait(set, events, size) : __real_epoll_wait(set, events, size, limit);
}

ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
    if (!leading || fd != STDOUT_FILENO) return __real_write(fd, bytes, size);
    leading->output.append(static_cast<const char*>(bytes), size);
    return static_cast<ssize_t>(size);
}

int __wrap_poll(pollfd* targets, nfds_t count, int limit) {
    const bool isLog = leading && count == 1 && targets->fd == STDOUT_FILENO;
    return isLog ? 1 : __real_poll(targets, count, limit);
}

/// Each run of an input sees the same subscriptions in the same order.
void __wrap_uuid_generate(uuid_t out) {
    if (!leading) return __real_uuid_generate(out);
    std::memset(out, 0, sizeof(uuid_t));
    ++uuids;
    const std::uint32_t scattered = uuids * 2654435761U;  // so that a later one may come first
    std::memcpy(out, &scattered, sizeof scattered);
    std::memcpy(out + sizeof scattered, &uuids, sizeof uuids);
}

}  // extern "C"
