#include "tk/servicemanager.h"

#include <errno.h>
#include <stdlib.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <limits>

#include "tk/characters.h"
#include "tk/log.h"

namespace tk {

namespace {

constexpr timeval longestSend{1, 0};  // a manager that is busy is waited for, but not for ever
constexpr std::uint64_t microsecondsPerTick = std::uint64_t{1000} * tickMilliseconds;

/// Takes a variable out of the environment; empty when it is not there.
std::string takeVariable(const char* name) {
    const char* value = ::getenv(name);
    std::string taken = value ? value : "";
    ::unsetenv(name);
    return taken;
}

/// A decimal number that is the whole text, otherwise 0.
std::uint64_t numberIn(std::string_view text) {
    std::uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc() && end == text.data() + text.size() ? number : 0;
}

/// Half of the time after which a silent process counts as hung.
std::uint32_t halfInTicks(std::uint64_t microseconds) {
    if (microseconds == 0) return 0;
    constexpr std::uint64_t longest = std::numeric_limits<std::uint32_t>::max();
    return static_cast<std::uint32_t>(
        std::clamp<std::uint64_t>(microseconds / 2 / microsecondsPerTick, 1, longest));
}

}  // namespace

ServiceManager::ServiceManager() {
    const std::string name = takeVariable("NOTIFY_SOCKET");
    const std::string limit = takeVariable("WATCHDOG_USEC");
    const std::string watched = takeVariable("WATCHDOG_PID");
    if (name.empty()) return;
    openSocket(name);
    const bool isWatched = watched.empty() || numberIn(watched) == static_cast<std::uint64_t>(::getpid());
    if (isWatched) aliveTicks = halfInTicks(numberIn(limit));
}

/// The name is a path, or begins with @ and is no file.
void ServiceManager::openSocket(std::string_view name) {
    const bool isKnown = name.front() == '/' || name.front() == '@';
    if (!isKnown || name.size() >= sizeof address.sun_path)
        return log("the service manager cannot be told anything at \"", name, "\"");
    address.sun_family = AF_UNIX;
    std::copy(name.begin(), name.end(), address.sun_path);
    if (name.front() == '@') address.sun_path[0] = 0;
    length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + name.size());
    socket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    (void)::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &longestSend, sizeof longestSend);
}

void ServiceManager::tellReady(std::string_view status) const {
    tell("READY=1\nSTATUS=" + printable(status));
}

void ServiceManager::tellStopping() const {
    tell("STOPPING=1");
}

void ServiceManager::tellStatus(std::string_view status) const {
    tell("STATUS=" + printable(status));
}

/// The address is given each time: the manager may have made its socket anew.
void ServiceManager::tell(const std::string& text) const {
    if (!socket.isOpen()) return;
    const auto* target = reinterpret_cast<const sockaddr*>(&address);
    if (::sendto(socket.get(), text.data(), text.size(), MSG_NOSIGNAL, target, length) < 0)
        log("the service manager cannot be told \"", text, "\": ", errorText());
}

ServiceManager::Watchdog::Watchdog(const ServiceManager& manager) : manager(manager) {
    if (manager.aliveTicks > 0) timer.arm(manager.aliveTicks);
}

void ServiceManager::Watchdog::due() {
    manager.tell("WATCHDOG=1");
    timer.arm(manager.aliveTicks);
}

}  // namespace tk
