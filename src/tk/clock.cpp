#include "tk/clock.h"

#include <time.h>

namespace tk {

std::uint64_t SystemClock::now() const {
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<std::uint64_t>(time.tv_sec) * 1000 +
           static_cast<std::uint64_t>(time.tv_nsec) / 1000000;
}

}  // namespace tk
