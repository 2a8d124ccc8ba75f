// The injection itself: whose calls fail, and which.
#include "faults/injection.h"

#include <ares.h>
#include <errno.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/netlink.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <utility>

#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include "faults/driver.h"
#include "tk/fd.h"

namespace faults {

namespace {

int openSocket() {
    return ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
}

TEST(Injection, FailsTheNumberedCallAlone) {
    begin({Call::socket, 2, EMFILE});
    {
        const InProgram here;
        EXPECT_TRUE(tk::Fd(openSocket()).isOpen());
        EXPECT_FALSE(hasStruck());
        EXPECT_EQ(openSocket(), -1);
        EXPECT_EQ(errno, EMFILE);
        EXPECT_TRUE(tk::Fd(openSocket()).isOpen());
    }
    EXPECT_TRUE(hasStruck());
    const Counts counts = end();
    EXPECT_EQ(counts[static_cast<std::size_t>(Call::socket)], 3U);
    EXPECT_EQ(counts[static_cast<std::size_t>(Call::close)], 2U);
}

TEST(Injection, LeavesTheTestsOwnCallsAlone) {
    begin({Call::socket, 1, EMFILE});
    EXPECT_TRUE(tk::Fd(openSocket()).isOpen());
    EXPECT_EQ(end()[static_cast<std::size_t>(Call::socket)], 0U);
    EXPECT_FALSE(hasStruck());
}

TEST(Injection, ReachesOtherSharedLibraries) {
    begin({Call::socket, 1, ENOBUFS});
    {
        const InProgram here;
        EXPECT_EQ(mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC), nullptr);
        EXPECT_EQ(errno, ENOBUFS);
    }
    (void)end();
    begin();
    {
        const InProgram here;
        ares_channel channel = nullptr;
        EXPECT_EQ(ares_init(&channel), ARES_SUCCESS);
        ares_destroy(channel);
    }
    EXPECT_GT(end()[static_cast<std::size_t>(Call::fopen)], 0U);  // of the system's configuration
}

TEST(Injection, ReachesForkedProcesses) {
    begin({Call::socket, 1, EMFILE});
    const pid_t child = ::fork();
    if (child == 0) {
        const InProgram here;
        ::_exit(openSocket() == -1 ? 0 : 1);
    }
    EXPECT_GT(child, 0);
    EXPECT_EQ(::waitpid(child, nullptr, 0), child);
    EXPECT_EQ(end()[static_cast<std::size_t>(Call::socket)], 1U);
    EXPECT_TRUE(hasStruck());
}

TEST(Injection, ShortensWhatMovesOnStreamsButNoDatagram) {
    for (const auto& [type, moved] : {std::pair(SOCK_STREAM, 1), std::pair(SOCK_DGRAM, 3)}) {
        int ends[2];
        ASSERT_EQ(::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, ends), 0);
        const tk::Fd near(ends[0]), far(ends[1]);
        begin({Call::send, 1, shortened});
        {
            const InProgram here;
            EXPECT_EQ(::send(near.get(), "abc", 3, MSG_NOSIGNAL), moved);
        }
        (void)end();
        EXPECT_EQ(hasStruck(), type == SOCK_STREAM);
        EXPECT_EQ(hasSpared(), type == SOCK_DGRAM);
    }
}

TEST(Injection, ShortensWhatIsWrittenInPartsAndSparesASingleByte) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    const tk::Fd near(ends[0]), far(ends[1]);
    char text[] = "abc";
    iovec parts[] = {{text, 2}, {text + 2, 1}};
    msghdr message{};
    message.msg_iov = parts;
    message.msg_iovlen = 2;
    for (const Call call : {Call::writev, Call::sendmsg}) {
        begin({call, 1, shortened});
        {
            const InProgram here;
            EXPECT_EQ(
                call == Call::writev ? ::writev(near.get(), parts, 2) : ::sendmsg(near.get(), &message, 0),
                1);
        }
        (void)end();
        EXPECT_TRUE(hasStruck());
    }
    begin({Call::send, 1, shortened});
    {
        const InProgram here;
        EXPECT_EQ(::send(near.get(), "a", 1, MSG_NOSIGNAL), 1);
    }
    (void)end();
    EXPECT_TRUE(hasSpared());
}

TEST(Injection, ClosesWhatFailsToClose) {
    const int descriptor = openSocket();
    begin({Call::close, 1, EIO});
    {
        const InProgram here;
        EXPECT_EQ(::close(descriptor), -1);
        EXPECT_EQ(errno, EIO);
    }
    (void)end();
    EXPECT_EQ(::fcntl(descriptor, F_GETFD), -1);
}

TEST(InjectionDeathTest, EndsWhatMakesASystemCallByANumberThatNobodyHasThoughtOf) {
    EXPECT_EQ(::syscall(SYS_getuid), ::getuid());
    const auto count = [] {
        begin();
        const InProgram here;
        (void)::syscall(SYS_getuid);
    };
    EXPECT_DEATH(count(), "system call [0-9]+: nobody has thought of it");
}

/// Ends the process when it gets no socket.
struct FragileWorld final : World {
    Outcome act() override {
        const InProgram here;
        const tk::Fd opened(openSocket());
        if (!opened.isOpen()) ::abort();
        return {};
    }
};

TEST(InjectionDeathTest, NamesTheFaultThatEndsTheProcess) {
    const auto fail = [] { failEveryCall([] { return std::make_unique<FragileWorld>(); }); };
    EXPECT_DEATH(fail(), "socket 1: EMFILE");
}

/// Makes one call some times, and another one only while the calls are counted.
struct ShyWorld final : World {
    explicit ShyWorld(int times, int run) : times(times), run(run) {}
    Outcome act() override {
        const InProgram here;
        for (int time = 0; time < times; ++time) (void)::listen(-1, 0);
        const bool isCounted = run < 2;  // the first run makes what is made only once
        EXPECT_EQ(isCounted ? ::dup(-1) : -1, -1);
        return {};
    }
    const int times;
    const int run;
};

/// What the driver finds fault with.
std::string failuresOf(int times, const Extent& extent) {
    testing::TestPartResultArray results;
    {
        const testing::ScopedFakeTestPartResultReporter here(&results);
        int runs = 0;
        failEveryCall([&] { return std::make_unique<ShyWorld>(times, runs++); }, allOrNothing, extent);
    }
    std::string all;
    for (int i = 0; i < results.size(); ++i) all += results.GetTestPartResult(i).message();
    return all;
}

TEST(Injection, MissesNoCallButFewOfThoseThatTheKernelPaces) {
    EXPECT_NE(failuresOf(10, {}).find("dup 1: EMFILE: did not come again"), std::string::npos);
    EXPECT_NE(failuresOf(9, {.paced = {Call::dup}}).find("too few calls came again"), std::string::npos);
    EXPECT_EQ(failuresOf(10, {.paced = {Call::dup}}), "");
}

TEST(Injection, NamesEachCall) {
    for (std::size_t kind = 0; kind < callCount; ++kind) {
        EXPECT_STRNE(nameOf(static_cast<Call>(kind)), nullptr);
        EXPECT_FALSE(outcomesOf(static_cast<Call>(kind)).empty());
    }
    EXPECT_STREQ(nameOf(Call::accept4), "accept4");
    EXPECT_STREQ(nameOf(Call::kill), "kill");
    EXPECT_STREQ(nameOf(Call::writev), "writev");
    EXPECT_EQ((Fault{Call::openat, 2, EROFS}).toString(), "openat 2: EROFS");
}

}  // namespace

}  // namespace faults
