#include "netlink/notifications.h"

namespace netlink {

namespace {

constexpr int receiveBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 256;
constexpr int queuedDatagrams = 100000;  // more than the buffer holds

}  // namespace

tk::Status Notifications::open(int family, std::uint32_t groups) {
    if (tk::Status opened = socket.open(family, groups); !opened.isOk()) return opened;
    socket.setBuffers(receiveBytes, receiveBytes);
    return {};
}

void Notifications::start() {
    watch.start<Notifications, &Notifications::ready>(socket.descriptor(), *this, tk::readable);
}

void Notifications::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result =
            socket.receive(0, [this](const nlmsghdr& message) { owner.heard(message, false); });
        if (result.isOk() && *result == Socket::Received::nothing) return;
        if (result.isOk() && *result == Socket::Received::datagram) continue;
        discard();
        return owner.lost();
    }
}

void Notifications::discard() {
    // What waits is older than what was lost. Applied after everything is read again, it would undo that.
    for (int i = 0; i < queuedDatagrams; ++i) {
        const auto result =
            socket.receive(0, [this](const nlmsghdr& message) { owner.heard(message, true); });
        if (result.isOk() && *result == Socket::Received::nothing) return;
    }
}

}  // namespace netlink
