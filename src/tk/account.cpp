#include "tk/account.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <grp.h>
#include <linux/capability.h>
#include <poll.h>
#include <pwd.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <iterator>
#include <memory>

#include "tk/fd.h"

namespace tk {

namespace {

struct CloseFolder {
    void operator()(DIR* folder) const { (void)::closedir(folder); }
};

/// Makes a folder with that mode, whatever the umask. An existing one stays as it is.
Status makeFolder(const std::string& path, mode_t mode) {
    if (::mkdir(path.c_str(), mode) != 0) return errno == EEXIST ? Status() : Status::ofErrno(errno);
    return ::chmod(path.c_str(), mode) == 0 ? Status() : Status::ofErrno(errno);
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

bool isNone(const __user_cap_data_struct& data) {
    return data.effective == 0 && data.permitted == 0 && data.inheritable == 0;
}

/// A service manager that has taken all capabilities may forbid the system call that gives them up, too.
bool setNoCapabilities() {
    __user_cap_header_struct header{};
    header.version = _LINUX_CAPABILITY_VERSION_3;
    __user_cap_data_struct held[_LINUX_CAPABILITY_U32S_3] = {};
    if (::syscall(SYS_capget, &header, held) == 0 && std::all_of(std::begin(held), std::end(held), isNone))
        return true;
    const __user_cap_data_struct none[_LINUX_CAPABILITY_U32S_3] = {};
    return ::syscall(SYS_capset, &header, none) == 0;
}

using Names = std::vector<std::string>;
using Ids = std::vector<gid_t>;
static_assert(sizeof(uid_t) == sizeof(gid_t));
constexpr gid_t none = static_cast<gid_t>(-1);
constexpr const char* busGroup = "tk";
constexpr const char* noLookup = "users cannot be looked up";
constexpr int lookupMilliseconds = 2000;

std::optional<gid_t> known(gid_t id) {
    return id == none ? std::nullopt : std::optional(id);
}

/// Looks a name up in the child. Ends it where there is no memory or descriptor for that: whoever cannot be
/// looked up is not unknown.
template <typename Entry>
const Entry* lookUp(Entry* (*entryOf)(const char*), const std::string& name) {
    errno = 0;
    const Entry* entry = entryOf(name.c_str());
    if (!entry && isShortage(errno)) ::_exit(1);
    return entry;
}

Ids askForUsers(const Names& names) {
    Ids ids;
    for (const std::string& name : names) {
        const passwd* entry = lookUp(&::getpwnam, name);
        ids.push_back(entry ? entry->pw_uid : none);
    }
    return ids;
}

Ids askForGroups(const Names& names) {
    Ids ids;
    for (const std::string& name : names) {
        const group* entry = lookUp(&::getgrnam, name);
        ids.push_back(entry ? entry->gr_gid : none);
    }
    return ids;
}

/// The id of the one user, that of the bus's group, and then those of the user's groups, of which its own
/// comes first; nothing for an unknown user.
Ids askForAccount(const Names& names) {
    const char* const name = names.front().c_str();
    const passwd* entry = lookUp(&::getpwnam, name);
    if (!entry) return {};
    const uid_t user = entry->pw_uid;
    const gid_t own = entry->pw_gid;
    int count = 0;
    (void)::getgrouplist(name, own, nullptr, &count);  // fails, and gives their number
    Ids groups(static_cast<std::size_t>(count));
    if (::getgrouplist(name, own, groups.data(), &count) < 0) ::_exit(1);
    Ids ids = {user, askForGroups({busGroup}).front()};
    ids.insert(ids.end(), groups.begin(), groups.begin() + count);
    return ids;
}

bool writeAll(const Fd& target, const Ids& ids) {
    const auto* bytes = reinterpret_cast<const char*>(ids.data());
    for (std::size_t left = ids.size() * sizeof ids[0]; left > 0;) {
        const ssize_t count = TEMP_FAILURE_RETRY(::write(target.get(), bytes, left));
        if (count < 0) return false;
        bytes += count;
        left -= static_cast<std::size_t>(count);
    }
    return true;
}

/// Reads what the child writes until it closes the pipe.
/// Errors: also when that takes too long.
Result<Ids> readAll(const Fd& source) {
    using std::chrono::steady_clock, std::chrono::milliseconds;
    const steady_clock::time_point end = steady_clock::now() + milliseconds(lookupMilliseconds);
    Ids ids;
    for (gid_t id = 0;;) {
        const auto left = std::chrono::ceil<milliseconds>(end - steady_clock::now()).count();
        if (left <= 0)
            return Status::failure(std::string(noLookup) + ": the system has not answered within 2 s");
        pollfd written{source.get(), POLLIN, 0};
        if (::poll(&written, 1, static_cast<int>(left)) <= 0) continue;
        const ssize_t count = TEMP_FAILURE_RETRY(::read(source.get(), &id, sizeof id));
        if (count == 0) return ids;
        if (count != ssize_t{sizeof id}) return Status::ofErrno(noLookup, count < 0 ? errno : EIO);
        ids.push_back(id);
    }
}

/// Makes a forked child that only looks names up let go of everything of its parent's: a socket that it kept
/// would live on with it, should a server of names never answer. It ends with its parent, and by any signal.
void standAlone(pid_t parent, const Fd& kept) {
    constexpr unsigned firstOther = STDERR_FILENO + 1;
    const auto number = static_cast<unsigned>(kept.get());
    if (number > firstOther) (void)::close_range(firstOther, number - 1, 0);
    (void)::close_range(number + 1, ~0U, 0);
    sigset_t nothing;
    sigemptyset(&nothing);
    (void)::sigprocmask(SIG_SETMASK, &nothing, nullptr);
    (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) ::_exit(1);  // it ended before that was in force
}

[[noreturn]] void answerAsChild(pid_t parent, const Fd& target, Ids (*ask)(const Names&),
                                const Names& names) {
    standAlone(parent, target);
    ::_exit(writeAll(target, ask(names)) ? 0 : 1);
}

/// Asks in a child: the libraries in which the system looks names up would stay in this process, and take up
/// more memory than much of its own code. And a child can be ended if a server of names does not answer.
Result<Ids> askInChild(Ids (*ask)(const Names&), const Names& names) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return Status::ofErrno(noLookup, errno);
    const Fd source(ends[0]);
    Fd target(ends[1]);
    const pid_t parent = ::getpid();
    const pid_t child = ::fork();
    if (child == 0) answerAsChild(parent, target, ask, names);
    if (child < 0) return Status::ofErrno(noLookup, errno);
    target.reset();
    Result<Ids> ids = readAll(source);
    if (!ids.isOk()) (void)::kill(child, SIGKILL);
    int status = 0;
    const bool hasEnded = TEMP_FAILURE_RETRY(::waitpid(child, &status, 0)) == child;
    if (ids.isOk() && (!hasEnded || status != 0)) return Status::failure(noLookup);
    return ids;
}

}  // namespace

Result<std::optional<Account>> findAccount(const std::string& name) {
    const Result<Ids> asked = askInChild(&askForAccount, {name});
    if (!asked.isOk()) return asked.status();
    const Ids& ids = *asked;
    if (ids.size() < 3) return std::optional<Account>();
    return std::optional(Account{name, ids[0], ids[2], {ids.begin() + 2, ids.end()}, known(ids[1])});
}

Result<std::vector<std::optional<uid_t>>> findUsers(const std::vector<std::string>& names) {
    const Result<Ids> asked = askInChild(&askForUsers, names);
    if (!asked.isOk()) return asked.status();
    std::vector<std::optional<uid_t>> users;
    for (const uid_t id : *asked) users.push_back(known(id));
    users.resize(names.size());
    return users;
}

Result<std::optional<gid_t>> findBusGroup() {
    const Result<Ids> asked = askInChild(&askForGroups, {busGroup});
    if (!asked.isOk()) return asked.status();
    return asked->empty() ? std::nullopt : known(asked->front());
}

Account inBusGroup(Account account) {
    if (account.busGroup) account.groups.push_back(*account.busGroup);
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

Status giveFolder(const std::string& path, const Account& account, mode_t mode) {
    Status given = makeFolder(path.substr(0, path.rfind('/')), sharedFolder);
    if (given.isOk()) given = makeFolder(path, mode);
    if (given.isOk()) given = giveContent(path, account);
    return given.prefixed("folder " + path + ": ");
}

namespace {

Status becomeUser(const std::string& name, const std::vector<std::string>& folders) {
    const Result<std::optional<Account>> found = findAccount(name);
    if (!found.isOk()) return found.status();
    const std::optional<Account>& account = *found;
    if (!account) return {};
    for (const std::string& folder : folders)
        if (Status given = giveFolder(folder, *account, ownFolder); !given.isOk()) return given;
    return becomeAccount(inBusGroup(*account)) ? Status() : Status::ofErrno("user " + name, errno);
}

}  // namespace

Status giveUpRights(const std::string& name, const std::vector<std::string>& folders) {
    if (::geteuid() == 0)
        if (Status changed = becomeUser(name, folders); !changed.isOk()) return changed;
    // Capabilities that are no longer permitted leave the ambient set, too.
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && setNoCapabilities()) return {};
    return Status::ofErrno("the capabilities", errno);
}

}  // namespace tk
