#include "tk/privileges.h"

#include <pwd.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "tk/account.h"
#include "tk/file.h"
#include "tk/testing/folder.h"

namespace tk {
namespace {

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

/// Whether it holds in a process of its own: the other tests keep their rights.
bool holdsInAChild(const std::function<bool()>& check) {
    const pid_t child = ::fork();
    EXPECT_GE(child, 0);
    if (child == 0) ::_exit(check() ? 0 : 1);
    int outcome = -1;
    EXPECT_EQ(::waitpid(child, &outcome, 0), child);
    return outcome == 0;
}

/// Tests that start as root does.
class GiveUpRights : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root has rights to give up";
        // What the user is to reach lies below.
        ASSERT_EQ(::chmod(folder.path.c_str(), 0755), 0);
    }
    const uid_t user = findAccount("daemon")->uid;
    tk::testing::Folder folder;
    std::string reason;
};

TEST_F(GiveUpRights, LeavesNoCapabilityWhereThereIsNoSuchUser) {
    EXPECT_TRUE(holdsInAChild(
        [this] { return giveUpRights("no-such-user", {}, reason) && hasNoCapability() && isUser(0); }));
}

TEST_F(GiveUpRights, BecomesTheUserWithItsGroup) {
    EXPECT_TRUE(holdsInAChild([this] {
        return giveUpRights("daemon", {}, reason) && hasNoCapability() && isUser(user) &&
               ::getgid() == findAccount("daemon")->gid && ::setuid(0) != 0;
    }));
}

TEST_F(GiveUpRights, GivesTheFoldersAndTheirFilesToTheUserBefore) {
    const std::string store = folder.file("store");
    ASSERT_TRUE(writeSynced(store + "/settings", "of root"));
    EXPECT_TRUE(holdsInAChild([&] {
        std::string content;
        return giveUpRights("daemon", {store}, reason) && readFile(store + "/settings", 100, content) &&
               content == "of root" && writeSynced(store + "/new", "of the user");
    }));
}

TEST_F(GiveUpRights, FailsWhereAFolderCannotBeGiven) {
    EXPECT_TRUE(holdsInAChild([this] {
        return !giveUpRights("daemon", {"/proc/store"}, reason) &&
               reason == "folder /proc/store: No such file or directory";
    }));
}

TEST_F(GiveUpRights, LeavesAnotherUserWhoItIs) {
    EXPECT_TRUE(holdsInAChild([this] {
        return becomeAccount(*findAccount("daemon")) && giveUpRights("nobody", {"/proc/store"}, reason) &&
               isUser(user) && hasNoCapability();
    }));
}

}  // namespace
}  // namespace tk
