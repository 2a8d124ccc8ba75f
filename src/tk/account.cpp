#include "tk/account.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <pwd.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>

#include "tk/fd.h"

namespace tk {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { (void)::closedir(folder); }
};

/// Makes a folder that everybody may enter, whatever the umask. An existing one stays as it is.
Status makeFolder(const std::string& path) {
    constexpr mode_t everybodyMayEnter = 0755;
    if (::mkdir(path.c_str(), everybodyMayEnter) != 0)
        return errno == EEXIST ? Status() : Status::ofErrno(errno);
    return ::chmod(path.c_str(), everybodyMayEnter) == 0 ? Status() : Status::ofErrno(errno);
}

/// Whoever may write to the folder may have linked somebody else's file into it. So only a file without a
/// second name is given away, through the very descriptor that was checked.
Status giveFile(int folder, const char* name, const Account& account) {
    const Fd file(::openat(folder, name, O_PATH | O_NOFOLLOW | O_CLOEXEC));
    struct stat status {};
    if (!file.isOpen() || ::fstat(file.get(), &status) != 0)
        return errno == ENOENT ? Status() : Status::ofErrno(errno);
    if (!S_ISREG(status.st_mode) || status.st_nlink != 1) return {};
    const bool isGiven = ::fchownat(file.get(), "", account.uid, account.gid, AT_EMPTY_PATH) == 0;
    return isGiven ? Status() : Status::ofErrno(errno);
}

bool setNoCapabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capset, &header, none) == 0;
}

}  // namespace

std::optional<Account> findAccount(const std::string& name) {
    const passwd* entry = ::getpwnam(name.c_str());
    if (!entry) return std::nullopt;
    Account account{name, entry->pw_uid, entry->pw_gid, {}};
    int count = 0;
    (void)::getgrouplist(name.c_str(), account.gid, nullptr, &count);  // fails, and gives their number
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
    // The user goes last: without root the other two would be refused.
    return ::setgroups(account.groups.size(), account.groups.data()) == 0 &&
           ::setresgid(account.gid, account.gid, account.gid) == 0 &&
           ::setresuid(account.uid, account.uid, account.uid) == 0;
}

namespace {

/// Gives away a folder that is there, with the files in it.
Status giveContent(const std::string& path, const Account& account) {
    Fd opened(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened.isOpen() || ::fchown(opened.get(), account.uid, account.gid) != 0)
        return Status::ofErrno(errno);
    const std::unique_ptr<DIR, CloseFolder> folder(::fdopendir(opened.get()));
    if (!folder) return Status::ofErrno(errno);
    (void)opened.release();  // the stream closes it
    while (const dirent* entry = ::readdir(folder.get()))
        if (Status given = giveFile(::dirfd(folder.get()), entry->d_name, account); !given.isOk())
            return given;
    return {};
}

}  // namespace

Status giveFolder(const std::string& path, const Account& account) {
    Status given = makeFolder(path.substr(0, path.rfind('/')));
    if (given.isOk()) given = makeFolder(path);
    if (given.isOk()) given = giveContent(path, account);
    return given.prefixed("folder " + path + ": ");
}

namespace {

Status becomeUser(const std::string& name, const std::vector<std::string>& folders) {
    const std::optional<Account> account = findAccount(name);
    if (!account) return {};
    for (const std::string& folder : folders)
        if (const Status given = giveFolder(folder, *account); !given.isOk()) return given;
    return becomeAccount(inBusGroup(*account)) ? Status() : Status::ofErrno("user " + name, errno);
}

}  // namespace

Status giveUpRights(const std::string& name, const std::vector<std::string>& folders) {
    if (::geteuid() == 0)
        if (const Status changed = becomeUser(name, folders); !changed.isOk()) return changed;
    // Capabilities that are no longer permitted leave the ambient set, too.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setNoCapabilities()) return {};
    return Status::ofErrno("the capabilities", errno);
}

}  // namespace tk
