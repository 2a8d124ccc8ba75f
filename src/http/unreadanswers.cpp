#include "http/unreadanswers.h"

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <utility>

namespace gateway {

namespace {

constexpr std::uint32_t lookTicks = 10;  // between two looks at what is kept

constexpr int ended = 7;  // tcpi_state of a connection that is closed, or was reset by its peer

/// What an answer may take up in the kernel: its packets are not full, and there is the socket itself.
std::size_t shareOf(std::size_t bytes) {
    return 2 * bytes + bytes / 2 + 4096;
}

/// True when the peer has acknowledged all that was sent, when it is gone, and when nobody can tell.
/// Protocol: tcp(7).
bool isTaken(int socket) {
    tcp_info info{};
    socklen_t size = sizeof info;
    if (::getsockopt(socket, IPPROTO_TCP, TCP_INFO, &info, &size) != 0) return true;
    return info.tcpi_state == ended || (info.tcpi_unacked == 0 && info.tcpi_notsent_bytes == 0);
}

/// Closes a socket, and drops what its peer has not taken.
void drop(tk::Fd socket) {
    const linger atOnce{1, 0};
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
}

}  // namespace

bool UnreadAnswers::mayClose(int socket, std::size_t bytes) {
    const std::uint64_t now = tk::getRunner()->now();
    if (now >= windowEnd) {
        windowEnd = now + window;
        answered = 0;
    }
    answered += shareOf(bytes);
    return answered <= freely || isTaken(socket);
}

void UnreadAnswers::keep(tk::Fd socket) {
    (void)::shutdown(socket.get(), SHUT_WR);
    if (kept.empty()) timer.arm(lookTicks);
    if (kept.size() == keptLimit) {
        drop(std::move(kept.front().socket));
        kept.pop_front();
    }
    kept.push_back({std::move(socket), tk::getRunner()->now() + window});
}

void UnreadAnswers::closeFinished() {
    std::erase_if(kept, [](const Kept& one) { return isTaken(one.socket.get()); });
    const std::uint64_t now = tk::getRunner()->now();
    while (!kept.empty() && now >= kept.front().until) {
        drop(std::move(kept.front().socket));
        kept.pop_front();
    }
    if (!kept.empty()) timer.arm(lookTicks);
}

}  // namespace gateway
