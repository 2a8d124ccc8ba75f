#include "faults/injection.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <vector>

namespace faults {

namespace {

struct Kind {
    const char* name;
    std::vector<int> outcomes;
};

/// A kind for each call, in their order.
// NOLINTNEXTLINE(readability-function-size): a table
const std::vector<Kind>& kinds() {
    static const std::vector<int> receiving{ECONNRESET, EINTR, EAGAIN, ENOBUFS, ENOMEM, ENETDOWN, shortened};
    static const std::vector<int> sending{ENOBUFS, EINTR, EAGAIN,   shortened,  EPIPE,
                                          ENOMEM,  EPERM, ENETDOWN, ENETUNREACH};
    static const std::vector<int> opening{EMFILE, ENFILE, ENOMEM, EACCES, ENOSPC, EROFS, EINTR};
    static const std::vector<int> writing{ENOSPC, EINTR, EIO, EROFS, EAGAIN, shortened};
    static const std::vector<int> renaming{ENOSPC, EROFS, EACCES, EIO, ENOMEM};
    static const std::vector<int> looking{EIO, ENOMEM};
    static const std::vector<int> noDescriptor{EMFILE, ENFILE, ENOMEM};
    static const std::vector<int> noRights{EPERM, EAGAIN};
    static const std::vector<Kind> all{
        {"accept4", {EMFILE, ECONNABORTED, ENFILE, EINTR, EAGAIN, ENOBUFS, ENOMEM, EPERM, ENETDOWN}},
        {"access", looking},
        {"malloc", {ENOMEM}},
        {"operator new", {ENOMEM}},
        {"bind", {EADDRINUSE, EADDRNOTAVAIL, EACCES, ENOMEM}},
        {"capget", {EPERM}},
        {"capset", {EPERM}},
        {"close", {EINTR, EIO}},
        {"connect", {ENETUNREACH, EINTR, ECONNREFUSED, EAGAIN, ENETDOWN, EADDRNOTAVAIL, ENOBUFS, EPERM}},
        {"dup", {EMFILE}},
        {"epoll_ctl", {ENOMEM, ENOSPC}},
        {"epoll_create1", noDescriptor},
        {"epoll_wait", {EINTR}},
        {"execv", {ENOENT, EACCES, ENOMEM}},
        {"fcntl", {EPERM, EMFILE}},
        {"fdopendir", {ENOMEM}},
        {"fopen", {EMFILE, ENOMEM, EACCES}},
        {"fork", {EAGAIN, ENOMEM}},
        {"fstat", looking},
        {"fsync", {EIO, ENOSPC, EROFS, EINTR}},
        {"getrandom", {EINTR, EAGAIN}},
        {"getsockname", {ENOBUFS}},
        {"getsockopt", {ENOBUFS, ENOMEM}},
        {"kill", {ESRCH, EPERM}},
        {"listen", {EADDRINUSE}},
        {"mkdir", {ENOSPC, EROFS, EACCES}},
        {"open", opening},
        {"openat", opening},
        {"pidfd_open", {EMFILE, ENFILE, ENODEV, ENOMEM}},
        {"pipe2", {EMFILE, ENFILE}},
        {"poll", {EINTR, ENOMEM}},
        {"read", {EIO, EINTR, shortened, EAGAIN}},
        {"recv", receiving},
        {"recvfrom", receiving},
        {"recvmsg", receiving},
        {"rename", renaming},
        {"renameat2", renaming},
        {"send", sending},
        {"sendmsg", sending},
        {"sendto", sending},
        {"setgroups", noRights},
        {"setresgid", noRights},
        {"setresuid", noRights},
        {"setsockopt", {ENOMEM, ENODEV, EPERM, ENOBUFS, EADDRINUSE}},
        {"signalfd", noDescriptor},
        {"socket", {EMFILE, ENFILE, ENOBUFS, ENOMEM, EPERM}},
        {"socketpair", noDescriptor},
        {"stat", looking},
        {"unlink", {EACCES, EROFS, EIO}},
        {"waitpid", {EINTR, ECHILD}},
        {"write", writing},
        {"writev", writing},
    };
    return all;
}

/// What the process shares with those that it forks.
struct State {
    std::atomic<std::uint32_t> counts[callCount];
    Fault fault;
    std::atomic<bool> struck;
    std::atomic<bool> spared;
};

State* state = nullptr;  // null until the first begin()
bool isCounting = false;
thread_local int depth = 0;  // of InProgram

State* newState() {
    void* shared = ::mmap(nullptr, sizeof(State), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (shared == MAP_FAILED) ::abort();
    return new (shared) State();  // NOLINT(cppcoreguidelines-owning-memory): stays as long as the process
}

}  // namespace

const char* nameOf(Call call) {
    return kinds()[static_cast<std::size_t>(call)].name;
}

std::span<const int> outcomesOf(Call call) {
    static_assert(static_cast<std::size_t>(Call::writev) + 1 == callCount);
    return kinds()[static_cast<std::size_t>(call)].outcomes;
}

std::string Fault::toString() const {
    const std::string how = outcome == shortened ? "SHORT" : ::strerrorname_np(outcome);
    return std::string(nameOf(call)) + " " + std::to_string(number) + ": " + how;
}

void begin(const Fault& fault) {
    if (!state) state = newState();
    for (auto& count : state->counts) count = 0;
    state->fault = fault;
    state->struck = false;
    state->spared = false;
    isCounting = true;
}

Counts end() {
    isCounting = false;
    Counts counts{};
    for (std::size_t i = 0; i < callCount; ++i) counts[i] = state->counts[i];
    return counts;
}

bool hasStruck() {
    return state && state->struck;
}

bool hasStruck(Call call) {
    return hasStruck() && state->fault.call == call;
}

bool hasSpared() {
    return state && state->spared;
}

InProgram::InProgram() {
    ++depth;
}

InProgram::~InProgram() {
    --depth;
}

bool areCounted() {
    return isCounting && depth > 0;
}

int verdict(Call call) {
    if (!areCounted()) return 0;
    const std::uint32_t number = ++state->counts[static_cast<std::size_t>(call)];
    if (state->fault.call != call || state->fault.number != number) return 0;
    state->struck = true;
    return state->fault.outcome;
}

void spare() {
    state->struck = false;
    state->spared = true;
}

}  // namespace faults
