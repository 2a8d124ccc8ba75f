#include "tk/fd.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace tk {

Fd& Fd::operator=(Fd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
}

Fd::~Fd() {
    reset();
}

int Fd::release() {
    return std::exchange(descriptor, -1);
}

void Fd::reset(int other) {
    if (descriptor >= 0) ::close(descriptor);
    descriptor = other;
}

void reserveStandardDescriptors() {
    // The programs that this one starts inherit these three.
    int descriptor = ::open("/dev/null", O_RDWR);  // NOLINT(android-cloexec-*)
    while (descriptor >= 0 && descriptor <= STDERR_FILENO)
        descriptor = ::dup(descriptor);  // NOLINT(android-cloexec-*)
    if (descriptor >= 0) ::close(descriptor);
}

void allowDescriptors(unsigned count) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= count) return;
    limit.rlim_cur = std::min<rlim_t>(count, limit.rlim_max);
    (void)::setrlimit(RLIMIT_NOFILE, &limit);  // if refused, the old limit holds
}

}  // namespace tk
