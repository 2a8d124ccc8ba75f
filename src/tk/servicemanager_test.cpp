#include "tk/servicemanager.h"

#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace tk {
namespace {

constexpr std::uint32_t second = 100;  // ticks

/// A service manager that listens at a path, or at a name that is no file.
class Manager {
public:
    explicit Manager(std::string name) : name(std::move(name)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(this->name.begin(), this->name.end(), address.sun_path);
        if (this->name.front() == '@') address.sun_path[0] = 0;
        const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + this->name.size());
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), length), 0);
    }

    /// Everything that it was told since the last call, a datagram each.
    std::vector<std::string> heard() const {
        std::vector<std::string> texts;
        char bytes[1000];
        for (ssize_t count = 0; (count = ::recv(socket.get(), bytes, sizeof bytes, 0)) >= 0;)
            texts.emplace_back(bytes, static_cast<std::size_t>(count));
        return texts;
    }

    const std::string name;

private:
    const Fd socket{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
};

using Texts = std::vector<std::string>;

class ServiceManagerTest : public ::testing::Test {
protected:
    ~ServiceManagerTest() override {
        for (const char* name : variables) ::unsetenv(name);
    }
    static void set(const char* name, const std::string& value) { ::setenv(name, value.c_str(), 1); }

    static constexpr const char* variables[] = {"NOTIFY_SOCKET", "WATCHDOG_USEC", "WATCHDOG_PID"};
    const testing::Folder folder;
    const Manager manager{folder.file("notify")};
};

TEST_F(ServiceManagerTest, IsToldWhatHappens) {
    set("NOTIFY_SOCKET", manager.name);
    const ServiceManager told;
    EXPECT_EQ(manager.heard(), Texts()) << "nothing has happened yet";
    told.tellReady("serving");
    told.tellStatus("no \n line");
    told.tellStopping();
    EXPECT_EQ(manager.heard(), (Texts{"READY=1\nSTATUS=serving", "STATUS=no \\x0a line", "STOPPING=1"}));
}

TEST_F(ServiceManagerTest, MayListenWithoutAFile) {
    const Manager hidden("@" + folder.path);
    set("NOTIFY_SOCKET", hidden.name);
    ServiceManager().tellStopping();
    EXPECT_EQ(hidden.heard(), (Texts{"STOPPING=1"}));
}

TEST_F(ServiceManagerTest, IsHiddenFromThePrograms) {
    set("NOTIFY_SOCKET", manager.name);
    set("WATCHDOG_USEC", "1000000");
    set("WATCHDOG_PID", "1");
    const ServiceManager told;
    for (const char* name : variables) EXPECT_EQ(::getenv(name), nullptr) << name;
}

TEST_F(ServiceManagerTest, ThatIsNotThereIsToldNothing) {
    const testing::CapturedOutput output;
    ServiceManager().tellReady("serving");
    EXPECT_EQ(output.text(), "");
}

TEST_F(ServiceManagerTest, ThatCannotBeReachedIsLogged) {
    set("NOTIFY_SOCKET", folder.file("nobody"));
    const testing::CapturedOutput output;
    ServiceManager().tellStopping();
    EXPECT_EQ(output.text(),
              "the service manager cannot be told \"STOPPING=1\": No such file or directory\n");
}

TEST_F(ServiceManagerTest, AtAnAddressOfAnotherKindIsLogged) {
    const testing::CapturedOutput output;
    set("NOTIFY_SOCKET", "vsock:2:1234");
    ServiceManager().tellStopping();
    EXPECT_EQ(output.text(), "the service manager cannot be told anything at \"vsock:2:1234\"\n");
}

TEST_F(ServiceManagerTest, AtAnAddressThatIsTooLongIsLogged) {
    const testing::CapturedOutput output;
    const std::string name = "/" + std::string(sizeof sockaddr_un::sun_path - 1, 'a');
    set("NOTIFY_SOCKET", name);
    ServiceManager().tellStopping();
    EXPECT_EQ(output.text(), "the service manager cannot be told anything at \"" + name + "\"\n");
}

/// A loop that is watched.
class WatchdogTest : public ServiceManagerTest {
protected:
    WatchdogTest() { set("NOTIFY_SOCKET", manager.name); }
    /// Begins to watch, with what the environment says now.
    void watch() {
        told.emplace();
        watchdog.emplace(*told);
    }

    testing::TestLoop loop;
    std::optional<ServiceManager> told;
    std::optional<ServiceManager::Watchdog> watchdog;
};

TEST_F(WatchdogTest, ShowsItselfTwiceInTheTime) {
    set("WATCHDOG_USEC", "30000000");
    watch();
    loop.advance(15 * second - 1);
    EXPECT_EQ(manager.heard(), Texts());
    loop.advance(1);
    EXPECT_EQ(manager.heard(), (Texts{"WATCHDOG=1"}));
    loop.advance(30 * second);
    EXPECT_EQ(manager.heard(), (Texts{"WATCHDOG=1", "WATCHDOG=1"}));
}

TEST_F(WatchdogTest, EndsWithItself) {
    set("WATCHDOG_USEC", "30000000");
    watch();
    watchdog.reset();
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

TEST_F(WatchdogTest, TheShortestTimeIsATick) {
    set("WATCHDOG_USEC", "1");
    watch();
    loop.advance(1);
    EXPECT_EQ(manager.heard(), (Texts{"WATCHDOG=1"}));
}

TEST_F(WatchdogTest, OfThisProcessIsShown) {
    set("WATCHDOG_USEC", "2000000");
    set("WATCHDOG_PID", std::to_string(::getpid()));
    watch();
    loop.advance(second);
    EXPECT_EQ(manager.heard(), (Texts{"WATCHDOG=1"}));
}

struct Case {
    const char* name;
    const char* limit;
    const char* process;
};

constexpr Case cases[] = {
    {"NoTime", "", ""},
    {"TimeZero", "0", ""},
    {"NoNumber", "1s", ""},
    {"Negative", "-1000000", ""},
    {"AnotherProcess", "1000000", "1"},
    {"NoProcess", "1000000", "me"},
};

class NoWatchdog : public WatchdogTest, public ::testing::WithParamInterface<Case> {};

TEST_P(NoWatchdog, RunsNoTimer) {
    set("WATCHDOG_USEC", GetParam().limit);
    set("WATCHDOG_PID", GetParam().process);
    watch();
    EXPECT_EQ(loop.looper.runner().timerCount(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Environments, NoWatchdog, ::testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
}  // namespace tk
