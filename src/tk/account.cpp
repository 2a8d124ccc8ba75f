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
#include <sys/wait.h>
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

namespace {

using Ids = std::vector<gid_t>;
static_assert(sizeof(uid_t) == sizeof(gid_t));

/// A user's id, then its groups' ids, of which its own comes first; nothing for an unknown user.
Ids askForUser(const char* name) {
    const passwd* entry = ::getpwnam(name);
    if (!entry) return {};
    const uid_t user = entry->pw_uid;
    const gid_t own = entry->pw_gid;
    int count = 0;
    (void)::getgrouplist(name, own, nullptr, &count);  // fails, and gives their number
    Ids ids(static_cast<std::size_t>(count) + 1, user);
    if (::getgrouplist(name, own, ids.data() + 1, &count) < 0) return {};
    ids.resize(static_cast<std::size_t>(count) + 1);
    return ids;
}

Ids askForGroup(const char* name) {
    const group* entry = ::getgrnam(name);
    return entry ? Ids{entry->gr_gid} : Ids();
}

bool writeAll(const Fd& target, const Ids& ids) {
    const auto* bytes = reinterpret_cast<const char*>(ids.data());
    for (std::size_t left = ids.size() * sizeof ids[0]; left > 0;) {
        const ssize_t count = ::write(target.get(), bytes, left);
        if (count < 0) return false;
        bytes += count;
        left -= static_cast<std::size_t>(count);
    }
    return true;
}

Ids readAll(const Fd& source) {
    Ids ids;
    gid_t id = 0;
    while (::read(source.get(), &id, sizeof id) == ssize_t{sizeof id}) ids.push_back(id);
    return ids;
}

/// Asks in a child: the libraries in which the system looks names up would stay in this process, and take up
/// more memory than much of its own code.
Ids askInChild(Ids (*ask)(const char*), const std::string& name) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return ask(name.c_str());
    const Fd source(ends[0]);
    Fd target(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) ::_exit(writeAll(target, ask(name.c_str())) ? 0 : 1);
    target.reset();
    Ids ids = readAll(source);
    int status = 0;
    const bool hasEnded = child > 0 && ::waitpid(child, &status, 0) == child;
    return hasEnded && status == 0 ? ids : ask(name.c_str());
}

}  // namespace

std::optional<Account> findAccount(const std::string& name) {
    const Ids ids = askInChild(&askForUser, name);
    if (ids.size() < 2) return std::nullopt;
    return Account{name, ids[0], ids[1], {ids.begin() + 1, ids.end()}};
}

std::optional<gid_t> findBusGroup() {
    const Ids ids = askInChild(&askForGroup, "tk");
    return ids.empty() ? std::nullopt : std::optional(ids.front());
}

Account inBusGroup(Account account) {
    if (const std::optional<gid_t> bus = findBusGroup()) account.groups.push_back(*bus);
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
