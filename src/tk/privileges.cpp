#include "tk/privileges.h"

#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <optional>

#include "tk/account.h"
#include "tk/handover.h"
#include "tk/log.h"

namespace tk {

namespace {

bool setNoCapabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capset, &header, none) == 0;
}

bool fail(const std::string& what, std::string& reason) {
    reason = what + ": " + errorText();
    return false;
}

bool becomeUser(const std::string& name, const std::vector<std::string>& folders, std::string& reason) {
    const std::optional<Account> account = findAccount(name);
    if (!account) return true;
    for (const std::string& folder : folders)
        if (!handOver(folder, *account)) return fail("folder " + folder, reason);
    return becomeAccount(inBusGroup(*account)) || fail("user " + name, reason);
}

}  // namespace

bool giveUpRights(const std::string& name, const std::vector<std::string>& folders, std::string& reason) {
    if (::geteuid() == 0 && !becomeUser(name, folders, reason)) return false;
    // Capabilities that are not permitted leave the ambient set as well.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setNoCapabilities()) return true;
    return fail("the capabilities", reason);
}

}  // namespace tk
