#include "fuzz/netlink/kernel.h"

#include <errno.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sanitizer/asan_interface.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <algorithm>

namespace {

constexpr std::uint16_t lost = 0xFFFF;       // the kernel had no room for it
constexpr std::uint16_t fault = 0xFFFE;      // the socket fails
constexpr std::uint16_t tooLarge = 0xFFFD;   // one that is cut off
constexpr std::uint16_t strangers = 0xFFFC;  // the next one comes from another process

}  // namespace

namespace fuzz {

Kernel& kernel() {
    static Kernel instance;
    return instance;
}

std::size_t messagesIn(std::string_view bytes) {
    std::size_t count = 0;
    for (std::uint32_t length = 0; bytes.size() >= sizeof(nlmsghdr); ++count) {
        ::memcpy(&length, bytes.data(), sizeof length);
        if (length < sizeof(nlmsghdr) || length > bytes.size()) return count;
        bytes.remove_prefix(std::min<std::size_t>(bytes.size(), (std::size_t{length} + 3) / 4 * 4));
    }
    return count;
}

void tell(std::string_view input) {
    Kernel& kernel = fuzz::kernel();
    kernel = {};
    kernel.input = input;
    std::uint16_t kind = 0;
    while (input.size() >= sizeof kind) {
        ::memcpy(&kind, input.data(), sizeof kind);
        input.remove_prefix(sizeof kind);
        const std::string_view bytes = kind < strangers ? input.substr(0, kind) : std::string_view();
        input.remove_prefix(bytes.size());
        kernel.waiting.push_back({kind < strangers ? std::uint16_t{0} : kind, bytes});
        kernel.messages += messagesIn(bytes);
    }
}

}  // namespace fuzz

// These take the place of the system's: no socket is ever opened.

using fuzz::kernel;

extern "C" {

int socket(int, int, int) noexcept {
    return ::eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);  // always readable
}

int bind(int, const sockaddr*, socklen_t) noexcept {
    return 0;
}

int getsockname(int, sockaddr*, socklen_t*) noexcept {
    return 0;
}

int setsockopt(int, int, int, const void*, socklen_t) noexcept {
    return 0;
}

int poll(pollfd*, nfds_t, int) {
    return kernel().waiting.empty() ? 0 : 1;
}

ssize_t sendto(int, const void* bytes, std::size_t size, int, const sockaddr*, socklen_t) {
    kernel().heard.emplace_back(static_cast<const char*>(bytes), size);
    return static_cast<ssize_t>(size);
}

ssize_t recvfrom(int, void* buffer, std::size_t size, int, sockaddr* from, socklen_t*) {
    std::uint32_t sender = 0;
    while (!kernel().waiting.empty()) {
        const fuzz::Datagram next = kernel().waiting.front();
        kernel().waiting.pop_front();
        if (next.kind == strangers) sender = 7;
        if (next.kind == lost || next.kind == fault) {
            errno = next.kind == lost ? ENOBUFS : EIO;
            return -1;
        }
        if (next.kind == strangers) continue;
        reinterpret_cast<sockaddr_nl*>(from)->nl_pid = sender;
        // Who reads on behind a datagram's end is found out.
        ASAN_UNPOISON_MEMORY_REGION(buffer, size);
        const std::size_t length = next.bytes.copy(static_cast<char*>(buffer), size);
        ASAN_POISON_MEMORY_REGION(static_cast<char*>(buffer) + length, size - length);
        return static_cast<ssize_t>(next.kind == tooLarge ? size + 1 : next.bytes.size());
    }
    errno = EAGAIN;
    return -1;
}

}  // extern "C"
