#include "tk/account.h"

#include <fcntl.h>
#include <grp.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pwd.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "tk/file.h"
#include "tk/testing/folder.h"

namespace tk {
namespace {

/// A folder of the test's own; giving something away takes root.
class GiveFolder : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root gives files away";
        account.uid = 64001;
        account.gid = 64000;
    }

    void write(const std::string& name) { ASSERT_TRUE(writeSynced(base + name, "content").isOk()); }

    uid_t ownerOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::lstat((base + name).c_str(), &status), 0) << name;
        return status.st_uid;
    }

    mode_t modeOf(const std::string& name) const {
        struct stat status {};
        EXPECT_EQ(::stat((base + name).c_str(), &status), 0) << name;
        return status.st_mode & 07777;
    }

    const testing::Folder folder;
    const std::string& base = folder.path;
    Account account;
};

TEST_F(GiveFolder, MakesTheFolderThatIsAbsent) {
    ASSERT_TRUE(giveFolder(base + "/new", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf("/new"), account.uid);
}

TEST_F(GiveFolder, MakesTheFolderAboveItToo) {
    ASSERT_TRUE(giveFolder(base + "/new/store", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf("/new/store"), account.uid);
    EXPECT_EQ(ownerOf("/new"), 0U);
}

TEST_F(GiveFolder, MakesItWithTheModeThatIsWantedWhateverTheUmask) {
    const mode_t before = ::umask(077);
    ASSERT_TRUE(giveFolder(base + "/shared", account, sharedFolder).isOk());
    ASSERT_TRUE(giveFolder(base + "/above/own", account, ownFolder).isOk());
    (void)::umask(before);
    EXPECT_EQ(modeOf("/shared"), 0755U);
    EXPECT_EQ(modeOf("/above"), 0755U);
    EXPECT_EQ(modeOf("/above/own"), 0700U);
}

TEST_F(GiveFolder, GivesTheFilesInTheFolderToo) {
    write("/folder/nat");
    ASSERT_TRUE(giveFolder(base + "/folder", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf("/folder"), account.uid);
    EXPECT_EQ(ownerOf("/folder/nat"), account.uid);
}

TEST_F(GiveFolder, LeavesAFileThatHasAnotherNameElsewhere) {
    write("/secret");
    write("/folder/nat");
    ASSERT_EQ(::link((base + "/secret").c_str(), (base + "/folder/trap").c_str()), 0);
    ASSERT_TRUE(giveFolder(base + "/folder", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf("/secret"), 0U);
}

TEST_F(GiveFolder, FollowsNoLink) {
    write("/secret");
    write("/folder/nat");
    ASSERT_EQ(::symlink((base + "/secret").c_str(), (base + "/folder/trap").c_str()), 0);
    ASSERT_TRUE(giveFolder(base + "/folder", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf("/secret"), 0U);

    ASSERT_EQ(::symlink(base.c_str(), (base + "/link").c_str()), 0);
    EXPECT_FALSE(giveFolder(base + "/link", account, ownFolder).isOk());
    EXPECT_EQ(ownerOf(""), 0U);
}

TEST_F(GiveFolder, FailsWhereTheFolderCannotBeMade) {
    EXPECT_FALSE(giveFolder(base + "/no/such/folder", account, ownFolder).isOk());
}

/// The value of a line of /proc/self/status.
std::string status(const std::string& key) {
    std::ifstream file("/proc/self/status");
    for (std::string line; std::getline(file, line);)
        if (line.starts_with(key + ":\t")) return line.substr(key.size() + 2);
    return {};
}

bool hasNoCapability() {
    const std::string none = "0000000000000000";
    return status("CapInh") == none && status("CapPrm") == none && status("CapEff") == none &&
           status("CapAmb") == none && status("NoNewPrivs") == "1";
}

bool isUser(uid_t wanted) {
    uid_t real = 0, effective = 0, saved = 0;
    return ::getresuid(&real, &effective, &saved) == 0 && real == wanted && effective == wanted &&
           saved == wanted;
}

/// True when it holds in a process of its own, so that the other tests keep their rights.
bool holdsInAChild(const std::function<bool()>& check) {
    const pid_t child = ::fork();
    EXPECT_GE(child, 0);
    if (child == 0) ::_exit(check() ? 0 : 1);
    int outcome = -1;
    EXPECT_EQ(::waitpid(child, &outcome, 0), child);
    return outcome == 0;
}

// What these ask the system itself, they ask in a child, too.

std::optional<Account> found(const std::string& name) {
    const Result<std::optional<Account>> account = findAccount(name);
    EXPECT_TRUE(account.isOk()) << account.reason();
    return account.isOk() ? *account : std::nullopt;
}

TEST(FindAccount, TellsTheUserWithItsGroups) {
    EXPECT_TRUE(holdsInAChild([] {
        const passwd* root = ::getpwnam("root");
        std::array<gid_t, 64> groups{};
        int count = groups.size();
        if (::getgrouplist("root", root->pw_gid, groups.data(), &count) < 0) return false;
        return *found("root") == Account{"root",
                                         root->pw_uid,
                                         root->pw_gid,
                                         {groups.begin(), groups.begin() + count},
                                         *findBusGroup()};
    }));
}

TEST(FindUsers, TellsWhichAreKnownInTheOrderOfTheNames) {
    EXPECT_EQ(*findUsers({"no-such-user", "root", "daemon"}),
              (std::vector<std::optional<uid_t>>{std::nullopt, 0, found("daemon")->uid}));
    EXPECT_TRUE(findUsers({})->empty());
    EXPECT_FALSE(found("no-such-user"));
}

TEST(InBusGroup, AddsTheGroupThatWasFoundWithTheUser) {
    EXPECT_EQ(inBusGroup({"a", 1, 2, {2}, 3}).groups, (std::vector<gid_t>{2, 3}));
    EXPECT_EQ(inBusGroup({"a", 1, 2, {2}, {}}).groups, std::vector<gid_t>{2});
}

TEST(FindAccount, LeavesNoLibraryForNamesInTheProcess) {
    (void)findAccount("no-such-user");
    (void)findUsers({"no-such-user"});
    (void)findBusGroup();
    std::ifstream maps("/proc/self/maps");
    const std::string text(std::istreambuf_iterator<char>(maps), {});
    EXPECT_EQ(text.find("libnss_"), std::string::npos);
}

/// Lets the system's list of users come from a pipe into which nobody writes, as from a server that does not
/// answer; for this process alone.
bool silenceUsers(const std::string& pipe) {
    return ::mkfifo(pipe.c_str(), 0644) == 0 && ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount(pipe.c_str(), "/etc/passwd", nullptr, MS_BIND, nullptr) == 0;
}

TEST(FindAccount, FailsWhenTheSystemDoesNotAnswer) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root mounts";
    const tk::testing::Folder folder;
    EXPECT_TRUE(holdsInAChild([&folder] {
        if (!silenceUsers(folder.file("pipe"))) return false;
        const Result<std::optional<Account>> account = findAccount("daemon");
        const bool leavesNoChild = ::waitpid(-1, nullptr, WNOHANG) < 0 && errno == ECHILD;
        return leavesNoChild &&
               account.reason() == "users cannot be looked up: the system has not answered within 2 s";
    }));
}

TEST(FindAccount, DoesNotAskInTheProcessItself) {
    EXPECT_TRUE(holdsInAChild([] {
        const rlimit noFiles{3, 3};
        return ::setrlimit(RLIMIT_NOFILE, &noFiles) == 0 &&
               findAccount("root").reason() == "users cannot be looked up: Too many open files";
    }));
}

/// Tests that start as root does.
class GiveUpRights : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root has rights to give up";
        // What the user is to reach lies below.
        ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    }
    const uid_t user = found("daemon")->uid;
    tk::testing::Folder folder;
};

TEST_F(GiveUpRights, LeavesNoCapabilityWhereThereIsNoSuchUser) {
    EXPECT_TRUE(holdsInAChild(
        [] { return giveUpRights("no-such-user", {}).isOk() && hasNoCapability() && isUser(0); }));
}

TEST_F(GiveUpRights, BecomesTheUserWithItsGroup) {
    EXPECT_TRUE(holdsInAChild([this] {
        return giveUpRights("daemon", {}).isOk() && hasNoCapability() && isUser(user) &&
               ::getgid() == found("daemon")->gid && ::setuid(0) != 0;
    }));
}

TEST_F(GiveUpRights, GivesTheFoldersAndTheirFilesToTheUserFirst) {
    const std::string store = folder.file("store");
    ASSERT_TRUE(writeSynced(store + "/settings", "of root").isOk());
    EXPECT_TRUE(holdsInAChild([&] {
        if (!giveUpRights("daemon", {store}).isOk()) return false;
        const Result<std::string> content = readFile(store + "/settings", 100);
        return content.isOk() && *content == "of root" && writeSynced(store + "/new", "of the user").isOk();
    }));
}

TEST_F(GiveUpRights, FailsWhereAFolderCannotBeGiven) {
    EXPECT_TRUE(holdsInAChild([] {
        return giveUpRights("daemon", {"/proc/store"}).reason() ==
               "folder /proc/store: No such file or directory";
    }));
}

TEST_F(GiveUpRights, LeavesAnotherUserAsItIs) {
    EXPECT_TRUE(holdsInAChild([this] {
        return becomeAccount(*found("daemon")) && giveUpRights("nobody", {"/proc/store"}).isOk() &&
               isUser(user) && hasNoCapability();
    }));
}

/// Makes the kernel refuse a system call to this process from now on.
bool forbid(unsigned call) {
    sock_filter filter[] = {BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
                            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | EPERM),
                            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW)};
    const sock_fprog program{std::size(filter), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

TEST_F(GiveUpRights, NeedsNoSystemCallForCapabilitiesThatAProcessDoesNotHave) {
    EXPECT_TRUE(holdsInAChild([] {
        return giveUpRights("daemon", {}).isOk() && forbid(SYS_capset) && giveUpRights("nobody", {}).isOk();
    }));
}

TEST_F(GiveUpRights, FailsWhereCapabilitiesCannotBeGivenUp) {
    EXPECT_TRUE(holdsInAChild([] {
        return forbid(SYS_capset) &&
               giveUpRights("no-such-user", {}).reason() == "the capabilities: Operation not permitted";
    }));
}

}  // namespace
}  // namespace tk
