#include "tk/platform.h"

#include <sys/utsname.h>
#include <time.h>

namespace tk {

std::uint32_t getUptime() {
    timespec time{};
    clock_gettime(CLOCK_BOOTTIME, &time);
    return static_cast<std::uint32_t>(time.tv_sec);
}

std::string getOSVersion() {
    utsname system{};
    return uname(&system) == 0 ? system.release : "";
}

}  // namespace tk
