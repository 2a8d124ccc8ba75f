#include "router/privileges.h"

#include <errno.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "tk/handover.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr unsigned long highestCapability = 63;

/// Nothing that this process runs can ever have another capability.
bool limitCapabilities() {
    for (unsigned long capability = 0; capability <= highestCapability; ++capability)
        if (capability != CAP_NET_ADMIN && ::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 &&
            errno != EINVAL)  // the kernel does not know this one
            return false;
    return true;
}

bool keepNetAdmin() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct data[_LINUX_CAPABILITY_U32S_3]{};
    data[CAP_TO_INDEX(CAP_NET_ADMIN)].effective = CAP_TO_MASK(CAP_NET_ADMIN);
    data[CAP_TO_INDEX(CAP_NET_ADMIN)].permitted = CAP_TO_MASK(CAP_NET_ADMIN);
    return ::syscall(SYS_capset, &header, data) == 0;
}

bool fail(const char* what, std::string& reason) {
    reason = std::string(what) + ": " + tk::errorText();
    return false;
}

}  // namespace

bool dropPrivileges(const tk::Account& account, const std::vector<std::string>& folders,
                    std::string& reason) {
    if (::geteuid() != 0) return true;
    const tk::Account wanted = tk::inBusGroup(account);
    for (const std::string& folder : folders)
        if (!tk::handOver(folder, account)) return fail(("folder " + folder).c_str(), reason);
    if (!limitCapabilities()) return fail("the capabilities cannot be limited", reason);
    if (::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || !tk::becomeAccount(wanted))
        return fail(("user " + account.name).c_str(), reason);
    if (!keepNetAdmin() || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return fail("the capabilities cannot be set", reason);
    return true;
}

}  // namespace router
