// A process gives up root's rights: it has given up all of them, or it says that it could not.
#include <errno.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <functional>
#include <memory>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "router/privileges.h"
#include "tk/account.h"
#include "tk/fd.h"
#include "tk/testing/folder.h"

namespace faults {

namespace {

constexpr const char* user = "daemon";  // of every system

/// What this process may still do, as the kernel tells it.
std::string rightsHeld() {
    std::string rights;
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        for (const char* key : {"Uid:", "Gid:", "Groups:", "Cap", "NoNewPrivs:"})
            if (line.starts_with(key)) rights += line + "\n";
    return rights;
}

/// The rights of another process after `act`; empty when that failed, and the process ends.
std::string rightsAfter(const std::function<tk::Status()>& act) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) return "no pipe";
    const tk::Fd told(ends[0]);
    tk::Fd tells(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        tk::Status outcome;
        {
            const InProgram here;
            outcome = act();
        }
        const std::string rights = outcome.isOk() ? rightsHeld() : "";
        ::_exit(::write(tells.get(), rights.data(), rights.size()) < 0 ? 1 : 0);
    }
    tells.reset();
    std::string rights;
    for (char one = 0; ::read(told.get(), &one, 1) == 1;) rights += one;
    int status = 0;
    return ::waitpid(child, &status, 0) == child && status == 0 ? rights : "no orderly end";
}

/// One process that reads what strangers send, and one that may change the network.
class RightsWorld final : public World {
public:
    Outcome act() override {
        return {rightsAfter([this] { return tk::giveUpRights(user, {files.file("own/store")}); }),
                rightsAfter([this] { return keepTheNetwork(); })};
    }

private:
    tk::Status keepTheNetwork() const {
        const auto account = tk::findAccount(user);
        if (!account.isOk()) return account.status();
        tk::Status dropped =
            router::dropPrivileges(**account, files.file("run/bus"), files.file("own/stores"));
        return dropped.isOk() ? router::checkPrivileges() : dropped;
    }

    tk::testing::Folder files;
};

TEST(RightsFaults, LeaveNoProcessWithRightsThatItHasGivenUp) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root, to give its rights up";
    EXPECT_THAT(RightsWorld().act(), ::testing::Each(::testing::HasSubstr("NoNewPrivs:\t1")));
    // A lookup without memory is another matter, see below; and it closes some hundred descriptors.
    failEveryCall([] { return std::make_unique<RightsWorld>(); }, allOrNothing,
                  {.fatal = {Call::allocate, Call::close}});
}

TEST(RightsFaults, NobodyIsUnknownForWantOfMemory) {
    constexpr std::uint32_t some =
        10;  // of a lookup's allocations; what opens the system's files may find nobody
    int refused = 0;
    for (std::uint32_t number = 1; number <= some; ++number) {
        begin({Call::allocate, number, ENOMEM});
        {
            const InProgram here;
            const auto account = tk::findAccount(user);
            if (!account.isOk()) ++refused;
            EXPECT_TRUE(!account.isOk() || account->has_value()) << "malloc " << number;
        }
        (void)end();
        EXPECT_TRUE(hasStruck());
    }
    EXPECT_GT(refused, 0);
}

}  // namespace

}  // namespace faults
