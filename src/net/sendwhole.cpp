#include "net/sendwhole.h"

#include <sys/socket.h>

namespace {

/// Makes room for `wanted` bytes. Of what the kernel reports, half is its own overhead.
void makeRoom(int socket, int wanted) {
    int room = 0;
    socklen_t size = sizeof room;
    if (::getsockopt(socket, SOL_SOCKET, SO_SNDBUF, &room, &size) == 0 && room / 2 >= wanted) return;
    (void)::setsockopt(socket, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof wanted);  // at worst less goes out
}

}  // namespace

bool sendWhole(int socket, std::string_view text) {
    makeRoom(socket, static_cast<int>(text.size()));
    return ::send(socket, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}
