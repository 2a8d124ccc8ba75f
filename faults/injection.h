#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

/// Makes single calls of the C library fail, also those that other shared libraries make: faults/interposed.cpp defines
/// the calls in the test program itself, which every library finds first.
namespace faults {

/// The calls that can be made to fail. The table in injection.cpp has the same order.
enum class Call : std::uint8_t {
    accept4,
    access,
    allocate,        // by a C library
    allocateObject,  // by C++: whoever gets none ends
    bind,
    capget,
    capset,
    close,
    connect,
    dup,
    epollAdd,  // adds to or changes what is watched; to stop watching never fails
    epollCreate,
    epollWait,
    execv,
    fcntl,
    fdopendir,
    fopen,
    fork,
    fstat,
    fsync,
    getrandom,
    getsockname,
    getsockopt,
    kill,
    listen,
    mkdir,
    open,
    openat,
    pidfdOpen,
    pipe2,
    poll,
    read,
    recv,
    recvfrom,
    recvmsg,
    rename,
    renameat2,
    send,
    sendmsg,
    sendto,
    setgroups,
    setresgid,
    setresuid,
    setsockopt,
    signalfd,
    socket,
    socketpair,
    stat,
    unlink,
    waitpid,
    write,
    writev,
};
inline constexpr std::size_t callCount = static_cast<std::size_t>(Call::writev) + 1;

/// An outcome that is no error: the call moves one byte, where it works on a stream or a file and has more to move. Any
/// other call is spared.
inline constexpr int shortened = -1;

/// The name of a call, and the errors that it may plausibly end with, or `shortened`.
[[nodiscard]] const char* nameOf(Call call);
[[nodiscard]] std::span<const int> outcomesOf(Call call);

/// One call that is to fail. A value.
struct Fault {
    Call call{};
    std::uint32_t number = 0;  // the first call of its kind has 1; 0: none fails
    int outcome = 0;           // an errno value, or `shortened`

    /// The fault in words.
    [[nodiscard]] std::string toString() const;
};

/// How often each call was made.
using Counts = std::array<std::uint32_t, callCount>;

/// Counts the calls from zero, in this process and in those that it forks, and lets one of them fail.
void begin(const Fault& fault = {});
/// Stops that, and returns how often each call was made since begin().
Counts end();
/// True when the fault of the last begin() came to pass, and that it was one of this call.
[[nodiscard]] bool hasStruck();
[[nodiscard]] bool hasStruck(Call call);
/// True when its call came, but there was nothing to shorten.
[[nodiscard]] bool hasSpared();

/// While one exists, calls of this thread are those of the tested program. All others, the test's own, are neither counted nor failed.
class InProgram {
public:
    InProgram();
    InProgram(const InProgram&) = delete;
    InProgram& operator=(const InProgram&) = delete;
    ~InProgram();
};

/// For the calls' definitions. True while the calls of this thread are counted.
[[nodiscard]] bool areCounted();
/// What this call is to end with: 0 when it is to take its course.
[[nodiscard]] int verdict(Call call);
/// Takes the last verdict back: there is nothing to shorten.
void spare();

}  // namespace faults
