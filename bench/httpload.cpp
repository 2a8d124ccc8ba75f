#include "bench/httpload.h"

#include <errno.h>
#include <netinet/tcp.h>
#include <stdio.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>

#include "bench/arguments.h"

namespace bench {

namespace {

constexpr std::int64_t patience = 10'000'000'000;      // nanoseconds until a server counts as dead
constexpr int lookMilliseconds = 5;                    // how often lost connections are looked for
constexpr std::int64_t lookAfter = 5'000'000;          // the same in nanoseconds
constexpr std::int64_t connectingLimit = 10'000'000;   // nanoseconds; a handshake waits for no program
constexpr std::int64_t soonestRepetition = 1'000'000;  // nanoseconds; no segment is sent again sooner
constexpr double nanosecondsInSecond = 1e9;
constexpr char good[] = "HTTP/1.1 200";
constexpr std::size_t shown = 4096;  // of an answer that failed

tcp_info stateOf(const tk::Fd& socket) {
    tcp_info info{};
    socklen_t length = sizeof info;
    if (::getsockopt(socket.get(), IPPROTO_TCP, TCP_INFO, &info, &length) != 0) fail("TCP_INFO");
    return info;
}

}  // namespace

HTTPLoad::HTTPLoad(const sockaddr_in& to, Requests& requests, std::size_t expected, std::size_t slots)
    : to(to), requests(requests), epoll(::epoll_create1(EPOLL_CLOEXEC)), connections(slots), times(expected) {
    if (!epoll.isOpen()) fail("epoll");
    begun = now();
}

void HTTPLoad::keepInFlight(std::size_t count) {
    unstarted = count;
    for (Connection& connection : connections)
        if (unstarted > 0) start(connection);
    serveUntilNoneIsOpen();
}

void HTTPLoad::burst() {
    for (Connection& connection : connections) {
        connection.request = requests.next();
        open(connection);
    }
    for (Connection& connection : connections) connect(connection);
    for (const Connection& connection : connections) watch(connection);
    serveUntilNoneIsOpen();
}

void HTTPLoad::start(Connection& connection) {
    --unstarted;
    connection.request = requests.next();
    open(connection);
    connect(connection);
    watch(connection);
}

void HTTPLoad::open(Connection& connection) {
    connection.socket.reset(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!connection.socket.isOpen()) fail("socket");
    connection.isSent = false;
    connection.answer.clear();
    ++openCount;
}

void HTTPLoad::connect(Connection& connection) const {
    const int descriptor = connection.socket.get();
    connection.begun = now();
    if (::connect(descriptor, reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0 && errno != EINPROGRESS)
        fail("connect");
}

void HTTPLoad::watch(const Connection& connection) const {
    epoll_event event{};
    event.events = EPOLLIN | EPOLLOUT | EPOLLRDHUP | EPOLLET;
    event.data.u64 = static_cast<std::uint64_t>(&connection - connections.data());
    if (::epoll_ctl(epoll.get(), EPOLL_CTL_ADD, connection.socket.get(), &event) != 0) fail("epoll_ctl");
}

void HTTPLoad::serveUntilNoneIsOpen() {
    std::array<epoll_event, 64> events{};
    for (std::int64_t heard = now(); openCount > 0;) {
        const int count = ::epoll_wait(epoll.get(), events.data(), int{events.size()}, lookMilliseconds);
        for (int i = 0; i < count; ++i) {
            const epoll_event& event = events[static_cast<std::size_t>(i)];
            serve(connections[event.data.u64], event.events);
        }
        const std::int64_t time = now();
        if (count > 0) heard = time;
        if (time - heard > patience) fail("no answer");
        if (time - looked > lookAfter) replaceLost(time);
    }
    ended = now();
}

void HTTPLoad::replaceLost(std::int64_t time) {
    looked = time;
    for (Connection& connection : connections) {
        if (!connection.socket.isOpen() || time - connection.begun < connectingLimit) continue;
        if (stateOf(connection.socket).tcpi_state != TCP_SYN_SENT) continue;
        ++lost;
        --openCount;
        open(connection);  // closes the old one
        connect(connection);
        watch(connection);
    }
}

void HTTPLoad::serve(Connection& connection, std::uint32_t events) {
    if (!connection.isSent && (events & EPOLLOUT) != 0) {
        const std::string& request = connection.request;
        const ssize_t sent = ::send(connection.socket.get(), request.data(), request.size(), MSG_NOSIGNAL);
        connection.isSent = true;
        if (sent != static_cast<ssize_t>(request.size())) return finish(connection);  // an answer of no bytes
    }
    if ((events & (EPOLLERR | EPOLLHUP)) != 0) return finish(connection);
    const bool isLast = (events & EPOLLRDHUP) != 0;
    if ((isLast || (events & EPOLLIN) != 0) && read(connection, isLast)) finish(connection);
}

bool HTTPLoad::read(Connection& connection, bool isLast) {
    static std::array<char, 262'144> bytes;
    for (;;) {
        const ssize_t length = ::recv(connection.socket.get(), bytes.data(), bytes.size(), 0);
        if (length < 0) return errno != EAGAIN;
        const auto size = static_cast<std::size_t>(length);
        if (connection.answer.size() < shown) connection.answer.append(bytes.data(), std::min(size, shown));
        // When the peer has ended its stream, everything up to there is in the queue.
        if (size == 0 || (isLast && size < bytes.size())) return true;
    }
}

void HTTPLoad::finish(Connection& connection) {
    const std::int64_t duration = now() - connection.begun;
    times.add(duration);
    if (duration > soonestRepetition && stateOf(connection.socket).tcpi_total_retrans > 0) ++lost;
    connection.socket.reset();
    --openCount;
    if (!connection.answer.starts_with(good) && failed++ == 0)
        ::fprintf(stderr, "failed: %s\n", connection.answer.c_str());
    if (unstarted > 0) start(connection);
}

void HTTPLoad::print() const {
    const double seconds = static_cast<double>(ended - begun) / nanosecondsInSecond;
    ::printf(
        "{\"seconds\": %.6f, \"count\": %zu, \"failed\": %zu, \"lost\": %zu, \"requestsPerSecond\": %.1f, ",
        seconds, times.count(), failed, lost, static_cast<double>(times.count()) / seconds);
    times.print();
    ::printf("}\n");
}

}  // namespace bench
