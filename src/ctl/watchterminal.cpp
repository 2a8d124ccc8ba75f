#include "ctl/watchterminal.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <string>

namespace ctl {

namespace {

constexpr std::string_view enterSequence = "\x1b[?1049h\x1b[?25l";
constexpr std::string_view leaveSequence = "\x1b[0m\x1b[?25h\x1b[?1049l";
constexpr int farewellMilliseconds = 1000;  // to a terminal that takes nothing

tk::Fd openAgain(int descriptor) {
    const std::string path = "/proc/self/fd/" + std::to_string(descriptor);
    return tk::Fd(::open(path.c_str(), O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
}

}  // namespace

WatchTerminal::WatchTerminal(int keyboard, int display, int interruption, bool hasCursor)
    : keyboard(keyboard),
      display(display),
      hasCursor(hasCursor),
      own(openAgain(display)),
      output(own.isOpen() ? own.get() : display, interruption) {}

void WatchTerminal::enter() {
    if (isEntered) return;
    isEntered = true;
    termios found{};
    if (::tcgetattr(keyboard, &found) == 0) {
        before = found;
        found.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        found.c_cc[VMIN] = 1;
        found.c_cc[VTIME] = 0;
        ::tcsetattr(keyboard, TCSANOW, &found);
    }
    if (hasCursor) writeWithoutWaiting(enterSequence);
}

void WatchTerminal::leave() {
    if (!isEntered) return;
    isEntered = false;
    if (hasCursor) writeWithoutWaiting(leaveSequence);
    if (before) ::tcsetattr(keyboard, TCSANOW, &*before);
    before.reset();
}

void WatchTerminal::writeWithoutWaiting(std::string_view text) {
    const int target = own.isOpen() ? own.get() : display;
    while (!text.empty()) {
        pollfd watched{target, POLLOUT, 0};
        if (::poll(&watched, 1, farewellMilliseconds) <= 0) return;
        const ssize_t count = ::write(target, text.data(), text.size());
        if (count < 0) return;
        text.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace ctl
