// The whole router on the kernel of a private network: what cannot be opened keeps it from starting, a reload is done or
// not, and the bus, the kernel and the configuration agree afterwards.
#include "router/router.h"

#include <errno.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "hub/processes.h"
#include "hub/testing/testhub.h"
#include "nat/testing/natrequest.h"
#include "tk/looper.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/commands.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"

namespace faults {

namespace {

using hub::testing::TestClient;
using nat::testing::natRequest;

constexpr const char* before = "[lan]\ninterfaces = [\"lan9\"]\n";
constexpr const char* after =
    "[lan]\ninterfaces = [\"lan9\"]\n\n[nat]\nlimit = 7\n\n[guard]\nrequests-per-second = 5\n";

std::string shell(const std::string& command) {
    bool failed = false;
    return tk::testing::run(command + " 2>&1", failed);
}

/// A router that starts blocks what ends it.
void letSignalsEndThis() {
    sigset_t all;
    sigfillset(&all);
    (void)::sigprocmask(SIG_UNBLOCK, &all, nullptr);
}

/// A router that serves a bus of its own, and root's connection to it.
class RouterWorld final : public World {
public:
    ~RouterWorld() override { stop(); }

    Outcome act() override {
        files.write("router.toml", before);
        Outcome outcome(6);
        outcome[0] = start();
        if (!outcome[0].empty() && connect()) {
            outcome[1] = ask({20, 5}, tk::command::addObject, natRequest(80, "192.0.2.2", 8080, 6, {}));
            awaitRules(outcome[1].empty() ? 2 : 1);
            shell("ip address add 192.0.2.1/24 dev lan9");
            outcome[2] = awaitAddresses(1);
            files.write("router.toml", after);
            outcome[3] = ask({0}, tk::command::hubReload, {});
            shell("ip address flush dev lan9");
            outcome[4] = awaitAddresses(0);
            client->close();
            awaitRules(0);
            outcome[5] = "rules gone with their client";
        }
        stop();
        if (outcome[4].empty()) shell("ip address flush dev lan9");
        return outcome;
    }
    std::string contradiction() override { return broken; }

private:
    std::string start() {
        const InProgram here;
        router::ConfigFile file(files.file("router.toml"), false);
        const tk::Result<router::Config> config = file.read();
        if (!config.isOk()) return {};
        running = std::make_unique<router::Router>(
            file, *config, router::Paths{files.file("run/bus"), files.file("stores")}, processes);
        if (running->start().isOk()) return "started";
        running.reset();
        return {};
    }
    void stop() {
        client.reset();
        const InProgram here;
        running.reset();
        letSignalsEndThis();
    }
    bool connect() {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        const std::string path = files.file("run/bus");
        std::strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
        tk::Fd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
        const bool done =
            ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
        if (!done) broken += "the router has started, but not its bus\n";
        client = std::make_unique<TestClient>(std::move(socket));
        return done;
    }
    /// Serves for as long as the router may take to make good what failed: until `isDone`, or for two seconds.
    void serveUntil(const std::function<bool()>& isDone) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (!isDone() && std::chrono::steady_clock::now() < end) {
            const InProgram here;
            tk::getLooper()->turn(20);
        }
    }
    tk::message exchange(const tk::Path& to, std::uint32_t command, const tk::message& content) {
        if (!client->isWritable()) return tk::errorMsg(tk::error::disconnected, "gone");
        client->request(to, command, content);
        std::vector<tk::message> ends;
        serveUntil([&] {
            ends = client->take();
            return !ends.empty() || !client->isWritable();
        });
        if (ends.empty() && client->isWritable()) broken += "a request has no end\n";
        return ends.empty() ? tk::errorMsg(tk::error::disconnected, "gone") : ends.front();
    }
    std::string ask(const tk::Path& to, std::uint32_t command, const tk::message& content) {
        return tk::isError(exchange(to, command, content)) ? "" : "done";
    }
    /// The kernel must come to hold the rules of the bus: `count` of them, or fewer where 2 stands for "0 or 1".
    void awaitRules(int count) {
        const auto agrees = [count] {
            const int held = rulesInKernel();
            return count == 2 ? held <= 1 : held == count;
        };
        serveUntil(agrees);
        if (!agrees()) broken += "the kernel has other rules than the bus tells\n";
    }
    static int rulesInKernel() {
        const std::string text = shell("nft list map ip tk dstnat");
        int count = 0;
        for (auto at = text.find(" . tcp . "); at != std::string::npos; at = text.find(" . tcp . ", at + 1))
            ++count;
        return count;
    }
    /// The bus must come to list as many addresses as the kernel has.
    std::string awaitAddresses(std::uint32_t wanted) {
        std::uint32_t count = 99;
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
        while (count != wanted && client->isWritable() && std::chrono::steady_clock::now() < end) {
            const tk::message reply = exchange({20, 1}, tk::command::getCount, {});
            if (!tk::isError(reply)) count = reply.get_u32(tk::field::count);
        }
        if (count == wanted) return "addresses: " + std::to_string(wanted);
        if (client->isWritable()) broken += "the bus has other addresses than the kernel\n";
        return {};
    }

    tk::testing::CapturedOutput output;
    tk::testing::Folder files;
    hub::OwnProcesses processes;
    std::unique_ptr<router::Router> running;
    std::unique_ptr<TestClient> client;
    std::string broken;
};

TEST(RouterFaults, LeaveTheBusTellingWhatTheKernelHas) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    shell("ip link add lan9 type veth peer name far9 && ip link set lan9 up");
    failEveryCall(
        [] { return std::make_unique<RouterWorld>(); }, allOrNothing,
        {.every = 32,
         .paced = {Call::epollAdd, Call::epollWait, Call::read, Call::recv, Call::recvfrom, Call::send},
         .fatal = {Call::allocate, Call::epollCreate}});
    shell("ip link del lan9");
}

TEST(RouterFaults, WithoutADescriptorForHangupsTheRouterDoesNotStart) {
    const tk::testing::CapturedOutput output;
    const tk::testing::Folder files;
    hub::OwnProcesses processes;
    router::Router running(router::ConfigFile(files.file("router.toml"), true), {},
                           {files.file("run/bus"), files.file("stores")}, processes);
    begin({Call::signalfd, 2, EMFILE});  // the first is the loop's own
    std::string reason;
    {
        const InProgram here;
        reason = running.start().reason();
    }
    (void)end();
    letSignalsEndThis();
    EXPECT_TRUE(hasStruck());
    EXPECT_EQ(reason, "SIGHUP: Too many open files");
    EXPECT_FALSE(files.has("run/bus"));
}

}  // namespace

}  // namespace faults
