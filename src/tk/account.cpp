#include "tk/account.h"

#include <grp.h>
#include <pwd.h>
#include <unistd.h>

namespace tk {

std::optional<Account> findAccount(const std::string& name) {
    const passwd* entry = ::getpwnam(name.c_str());
    if (!entry) return std::nullopt;
    Account account{name, entry->pw_uid, entry->pw_gid, {}};
    int count = 0;
    (void)::getgrouplist(name.c_str(), account.gid, nullptr, &count);  // fails, and tells how many there are
    account.groups.resize(static_cast<std::size_t>(count));
    if (::getgrouplist(name.c_str(), account.gid, account.groups.data(), &count) < 0) return std::nullopt;
    account.groups.resize(static_cast<std::size_t>(count));
    return account;
}

Account inBusGroup(Account account) {
    if (const group* bus = ::getgrnam("tk")) account.groups.push_back(bus->gr_gid);
    return account;
}

bool becomeAccount(const Account& account) {
    // The user last: without root's the other two would be refused.
    return ::setgroups(account.groups.size(), account.groups.data()) == 0 &&
           ::setresgid(account.gid, account.gid, account.gid) == 0 &&
           ::setresuid(account.uid, account.uid, account.uid) == 0;
}

}  // namespace tk
