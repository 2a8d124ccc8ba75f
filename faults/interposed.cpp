// The calls of the C library that can be made to fail. A definition in the program takes the place of the library's for
// all that is linked to it; those of the sanitizers, if there are any, stand between it and the library.
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/epoll.h>
#include <sys/random.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <numeric>
#include <optional>
#include <string>

#include "faults/injection.h"

using faults::Call;
using faults::shortened;

namespace {

/// The function that stands behind ours.
template <typename Function>
Function* next(const char* name) {
    void* found = ::dlsym(RTLD_DEFAULT, (std::string("__interceptor_") + name).c_str());
    if (!found) found = ::dlsym(RTLD_NEXT, name);
    return reinterpret_cast<Function*>(found);
}

/// True when the call is to fail now; errno then says how.
bool fails(Call call) {
    const int outcome = faults::verdict(call);
    if (outcome > 0) errno = outcome;
    return outcome > 0;
}

/// True when what a call moves over this descriptor can be cut: a socket's messages are passed whole or not at all, and
/// what is no socket is a stream, too.
bool isStream(int descriptor) {
    static const auto realOption = next<decltype(::getsockopt)>("getsockopt");
    int type = SOCK_STREAM;
    socklen_t size = sizeof type;
    const int former = errno;
    (void)realOption(descriptor, SOL_SOCKET, SO_TYPE, &type, &size);
    errno = former;
    return type == SOCK_STREAM;
}

/// The same for what moves bytes: sets `length` to 1 when the call is to move less than it could.
bool fails(Call call, int descriptor, std::size_t& length) {
    const int outcome = faults::verdict(call);
    if (outcome > 0) errno = outcome;
    if (outcome != shortened) return outcome > 0;
    if (length > 1 && isStream(descriptor))
        length = 1;
    else
        faults::spare();
    return false;
}

/// Those that are made by their number.
std::optional<Call> systemCall(long number) {
    switch (number) {
        case SYS_capget:
            return Call::capget;
        case SYS_capset:
            return Call::capset;
        case SYS_pidfd_open:
            return Call::pidfdOpen;
        default:
            return {};
    }
}

/// What these parts can take.
std::size_t sizeOf(const iovec* parts, std::size_t count) {
    return std::accumulate(parts, parts + count, std::size_t{0},
                           [](std::size_t sum, const iovec& part) { return sum + part.iov_len; });
}

/// A message of which a call moves less than it could: the first byte alone.
struct CutMessage {
    CutMessage(const msghdr& whole, std::size_t length) : header(whole) {
        if (length == sizeOf(whole.msg_iov, whole.msg_iovlen)) return;
        part = {header.msg_iov[0].iov_base, length};
        header.msg_iov = &part;
        header.msg_iovlen = 1;
    }
    msghdr header{};
    iovec part{};
};

}  // namespace

extern "C" {

int accept4(int fd, sockaddr* address, socklen_t* length, int flags) {
    static const auto real = next<decltype(::accept4)>("accept4");
    return fails(Call::accept4) ? -1 : real(fd, address, length, flags);
}

int access(const char* path, int mode) noexcept {
    static const auto real = next<int(const char*, int)>("access");
    return fails(Call::access) ? -1 : real(path, mode);
}

int bind(int fd, const sockaddr* address, socklen_t length) noexcept {
    static const auto real = next<int(int, const sockaddr*, socklen_t)>("bind");
    return fails(Call::bind) ? -1 : real(fd, address, length);
}

// A descriptor is closed even where this fails.
int close(int fd) {
    static const auto real = next<int(int)>("close");
    const bool failed = fails(Call::close);
    const int error = errno;
    const int closed = real(fd);
    if (!failed) return closed;
    errno = error;
    return -1;
}

int connect(int fd, const sockaddr* address, socklen_t length) {
    static const auto real = next<int(int, const sockaddr*, socklen_t)>("connect");
    return fails(Call::connect) ? -1 : real(fd, address, length);
}

int dup(int fd) noexcept {
    static const auto real = next<int(int)>("dup");
    return fails(Call::dup) ? -1 : real(fd);
}

int epoll_create1(int flags) noexcept {
    static const auto real = next<int(int)>("epoll_create1");
    return fails(Call::epollCreate) ? -1 : real(flags);
}

int epoll_ctl(int set, int operation, int fd, epoll_event* event) noexcept {
    static const auto real = next<int(int, int, int, epoll_event*)>("epoll_ctl");
    if (operation != EPOLL_CTL_DEL && fails(Call::epollAdd)) return -1;
    return real(set, operation, fd, event);
}

int epoll_wait(int set, epoll_event* events, int count, int milliseconds) {
    static const auto real = next<int(int, epoll_event*, int, int)>("epoll_wait");
    return fails(Call::epollWait) ? -1 : real(set, events, count, milliseconds);
}

int execv(const char* path, char* const* arguments) noexcept {
    static const auto real = next<int(const char*, char* const*)>("execv");
    return fails(Call::execv) ? -1 : real(path, arguments);
}

int fcntl(int fd, int command, ...) {
    static const auto real = next<int(int, int, ...)>("fcntl");
    va_list list;
    va_start(list, command);
    void* argument = va_arg(list, void*);
    va_end(list);
    return fails(Call::fcntl) ? -1 : real(fd, command, argument);
}

DIR* fdopendir(int fd) {
    static const auto real = next<DIR*(int)>("fdopendir");
    return fails(Call::fdopendir) ? nullptr : real(fd);
}

FILE* fopen(const char* path, const char* mode) {
    static const auto real = next<FILE*(const char*, const char*)>("fopen");
    return fails(Call::fopen) ? nullptr : real(path, mode);
}

pid_t fork() noexcept {
    static const auto real = next<pid_t()>("fork");
    return fails(Call::fork) ? -1 : real();
}

int fstat(int fd, struct stat* status) noexcept {
    static const auto real = next<int(int, struct stat*)>("fstat");
    return fails(Call::fstat) ? -1 : real(fd, status);
}

int fsync(int fd) {
    static const auto real = next<int(int)>("fsync");
    return fails(Call::fsync) ? -1 : real(fd);
}

ssize_t getrandom(void* bytes, std::size_t length, unsigned flags) {
    static const auto real = next<ssize_t(void*, std::size_t, unsigned)>("getrandom");
    return fails(Call::getrandom) ? -1 : real(bytes, length, flags);
}

int getsockname(int fd, sockaddr* address, socklen_t* length) noexcept {
    static const auto real = next<int(int, sockaddr*, socklen_t*)>("getsockname");
    return fails(Call::getsockname) ? -1 : real(fd, address, length);
}

int getsockopt(int fd, int level, int option, void* value, socklen_t* length) noexcept {
    static const auto real = next<int(int, int, int, void*, socklen_t*)>("getsockopt");
    return fails(Call::getsockopt) ? -1 : real(fd, level, option, value, length);
}

int kill(pid_t process, int number) noexcept {
    static const auto real = next<int(pid_t, int)>("kill");
    return fails(Call::kill) ? -1 : real(process, number);
}

int listen(int fd, int queue) noexcept {
    static const auto real = next<int(int, int)>("listen");
    return fails(Call::listen) ? -1 : real(fd, queue);
}

int lstat(const char* path, struct stat* status) noexcept {
    static const auto real = next<int(const char*, struct stat*)>("lstat");
    return fails(Call::stat) ? -1 : real(path, status);
}

int mkdir(const char* path, mode_t mode) noexcept {
    static const auto real = next<int(const char*, mode_t)>("mkdir");
    return fails(Call::mkdir) ? -1 : real(path, mode);
}

int open(const char* path, int flags, ...) {
    static const auto real = next<int(const char*, int, ...)>("open");
    va_list list;
    va_start(list, flags);
    const mode_t mode = va_arg(list, mode_t);
    va_end(list);
    return fails(Call::open) ? -1 : real(path, flags, mode);
}

int openat(int folder, const char* path, int flags, ...) {
    static const auto real = next<int(int, const char*, int, ...)>("openat");
    va_list list;
    va_start(list, flags);
    const mode_t mode = va_arg(list, mode_t);
    va_end(list);
    return fails(Call::openat) ? -1 : real(folder, path, flags, mode);
}

int pipe2(int* ends, int flags) noexcept {
    static const auto real = next<int(int*, int)>("pipe2");
    return fails(Call::pipe2) ? -1 : real(ends, flags);
}

int poll(pollfd* targets, nfds_t count, int milliseconds) {
    static const auto real = next<int(pollfd*, nfds_t, int)>("poll");
    return fails(Call::poll) ? -1 : real(targets, count, milliseconds);
}

ssize_t read(int fd, void* bytes, std::size_t length) {
    static const auto real = next<ssize_t(int, void*, std::size_t)>("read");
    return fails(Call::read, fd, length) ? -1 : real(fd, bytes, length);
}

ssize_t recv(int fd, void* bytes, std::size_t length, int flags) {
    static const auto real = next<ssize_t(int, void*, std::size_t, int)>("recv");
    return fails(Call::recv, fd, length) ? -1 : real(fd, bytes, length, flags);
}

ssize_t recvfrom(int fd, void* bytes, std::size_t length, int flags, sockaddr* from, socklen_t* fromLength) {
    static const auto real = next<ssize_t(int, void*, std::size_t, int, sockaddr*, socklen_t*)>("recvfrom");
    return fails(Call::recvfrom, fd, length) ? -1 : real(fd, bytes, length, flags, from, fromLength);
}

ssize_t recvmsg(int fd, msghdr* message, int flags) {
    static const auto real = next<ssize_t(int, msghdr*, int)>("recvmsg");
    // All that is read so are messages that the kernel passes whole.
    std::size_t length = 1;
    return fails(Call::recvmsg, fd, length) ? -1 : real(fd, message, flags);
}

int rename(const char* from, const char* to) noexcept {
    static const auto real = next<int(const char*, const char*)>("rename");
    return fails(Call::rename) ? -1 : real(from, to);
}

int renameat2(int fromFolder, const char* from, int toFolder, const char* to, unsigned flags) noexcept {
    static const auto real = next<int(int, const char*, int, const char*, unsigned)>("renameat2");
    return fails(Call::renameat2) ? -1 : real(fromFolder, from, toFolder, to, flags);
}

ssize_t send(int fd, const void* bytes, std::size_t length, int flags) {
    static const auto real = next<ssize_t(int, const void*, std::size_t, int)>("send");
    return fails(Call::send, fd, length) ? -1 : real(fd, bytes, length, flags);
}

ssize_t sendmsg(int fd, const msghdr* message, int flags) {
    static const auto real = next<ssize_t(int, const msghdr*, int)>("sendmsg");
    std::size_t length = sizeOf(message->msg_iov, message->msg_iovlen);
    if (fails(Call::sendmsg, fd, length)) return -1;
    const CutMessage cut(*message, length);
    return real(fd, &cut.header, flags);
}

ssize_t sendto(int fd, const void* bytes, std::size_t length, int flags, const sockaddr* to,
               socklen_t toLength) {
    static const auto real =
        next<ssize_t(int, const void*, std::size_t, int, const sockaddr*, socklen_t)>("sendto");
    return fails(Call::sendto, fd, length) ? -1 : real(fd, bytes, length, flags, to, toLength);
}

int setgroups(std::size_t count, const gid_t* groups) noexcept {
    static const auto real = next<int(std::size_t, const gid_t*)>("setgroups");
    return fails(Call::setgroups) ? -1 : real(count, groups);
}

int setresgid(gid_t real, gid_t effective, gid_t saved) noexcept {
    static const auto behind = next<int(gid_t, gid_t, gid_t)>("setresgid");
    return fails(Call::setresgid) ? -1 : behind(real, effective, saved);
}

int setresuid(uid_t real, uid_t effective, uid_t saved) noexcept {
    static const auto behind = next<int(uid_t, uid_t, uid_t)>("setresuid");
    return fails(Call::setresuid) ? -1 : behind(real, effective, saved);
}

int setsockopt(int fd, int level, int option, const void* value, socklen_t length) noexcept {
    static const auto real = next<int(int, int, int, const void*, socklen_t)>("setsockopt");
    return fails(Call::setsockopt) ? -1 : real(fd, level, option, value, length);
}

int signalfd(int fd, const sigset_t* signals, int flags) noexcept {
    static const auto real = next<int(int, const sigset_t*, int)>("signalfd");
    return fails(Call::signalfd) ? -1 : real(fd, signals, flags);
}

int socket(int domain, int type, int protocol) noexcept {
    static const auto real = next<int(int, int, int)>("socket");
    return fails(Call::socket) ? -1 : real(domain, type, protocol);
}

int socketpair(int domain, int type, int protocol, int* ends) noexcept {
    static const auto real = next<int(int, int, int, int*)>("socketpair");
    return fails(Call::socketpair) ? -1 : real(domain, type, protocol, ends);
}

int stat(const char* path, struct stat* status) noexcept {
    static const auto real = next<int(const char*, struct stat*)>("stat");
    return fails(Call::stat) ? -1 : real(path, status);
}

// It passes on as many arguments as a call may have, and so reads some that its caller did not give.
__attribute__((no_sanitize("address"))) long syscall(long number, ...) noexcept {
    static const auto real = next<long(long, ...)>("syscall");
    va_list list;
    va_start(list, number);
    long arguments[6];
    for (long& argument : arguments) argument = va_arg(list, long);
    va_end(list);
    const std::optional<Call> call = systemCall(number);
    const bool isKnown = call || number == SYS_gettid;  // which libuuid asks for, and which cannot fail
    if (!isKnown && faults::areCounted()) {
        ::fprintf(stderr, "system call %ld: nobody has thought of it\n", number);
        ::abort();
    }
    if (call && fails(*call)) return -1;
    return real(number, arguments[0], arguments[1], arguments[2], arguments[3], arguments[4], arguments[5]);
}

int unlink(const char* path) noexcept {
    static const auto real = next<int(const char*)>("unlink");
    return fails(Call::unlink) ? -1 : real(path);
}

pid_t waitpid(pid_t process, int* status, int options) {
    static const auto real = next<pid_t(pid_t, int*, int)>("waitpid");
    return fails(Call::waitpid) ? -1 : real(process, status, options);
}

ssize_t write(int fd, const void* bytes, std::size_t length) {
    static const auto real = next<ssize_t(int, const void*, std::size_t)>("write");
    return fails(Call::write, fd, length) ? -1 : real(fd, bytes, length);
}

ssize_t writev(int fd, const iovec* parts, int count) {
    static const auto real = next<ssize_t(int, const iovec*, int)>("writev");
    static const auto realWrite = next<ssize_t(int, const void*, std::size_t)>("write");
    const std::size_t all = sizeOf(parts, static_cast<std::size_t>(count));
    std::size_t length = all;
    if (fails(Call::writev, fd, length)) return -1;
    return length == all ? real(fd, parts, count) : realWrite(fd, parts[0].iov_base, length);
}

}  // extern "C"
