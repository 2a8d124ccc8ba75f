#include "router/privileges.h"

#include <errno.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace router {

namespace {

constexpr unsigned long highestCapability = 63;

/// Makes sure that nothing this process runs can ever have another capability.
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

}  // namespace

tk::Status dropPrivileges(const tk::Account& account, const std::string& bus, const std::string& stores) {
    if (::geteuid() != 0) return {};
    const tk::Account wanted = tk::inBusGroup(account);
    tk::Status given = tk::giveFolder(bus, account, tk::sharedFolder);
    if (given.isOk()) given = tk::giveFolder(stores, account, tk::ownFolder);
    if (!given.isOk()) return given;
    if (!limitCapabilities()) return tk::Status::ofErrno("the capabilities cannot be limited", errno);
    if (::prctl(PR_SET_KEEPCAPS, 1, 0, 0, 0) != 0 || !tk::becomeAccount(wanted))
        return tk::Status::ofErrno("user " + account.name, errno);
    if (!keepNetAdmin() || ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0)
        return tk::Status::ofErrno("the capabilities cannot be set", errno);
    return {};
}

tk::Status checkPrivileges() {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3]{};
    if (::syscall(SYS_capget, &header, held) != 0) return tk::Status::ofErrno("the capabilities", errno);
    if ((held[CAP_TO_INDEX(CAP_NET_ADMIN)].effective & CAP_TO_MASK(CAP_NET_ADMIN)) != 0) return {};
    return tk::Status::failure(
        "it lacks CAP_NET_ADMIN: start it as root, or as a service with AmbientCapabilities=CAP_NET_ADMIN");
}

}  // namespace router
