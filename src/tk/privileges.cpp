#include "tk/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tk/log.h"

namespace tk {

namespace {

bool setNoCapabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capset, &header, none) == 0;
}

}  // namespace

bool dropCapabilities(std::string& reason) {
    // Capabilities that are not permitted leave the ambient set as well.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setNoCapabilities()) return true;
    reason = errorText();
    return false;
}

}  // namespace tk
