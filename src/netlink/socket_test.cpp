#include "netlink/socket.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <linux/rtnetlink.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <vector>

#include <gtest/gtest.h>

#include "tk/file.h"

namespace netlink {
namespace {

/// Takes CAP_NET_ADMIN from the process while this object lives, as in a container.
class WithoutAdministration {
public:
    WithoutAdministration() {
        isDone = ::syscall(SYS_capget, &header, before.data()) == 0;
        auto fewer = before;
        fewer[0].effective &= ~(1U << CAP_NET_ADMIN);
        isDone = isDone && ::syscall(SYS_capset, &header, fewer.data()) == 0;
    }
    ~WithoutAdministration() { (void)::syscall(SYS_capset, &header, before.data()); }  // as it was

    bool isDone = false;

private:
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, 2> before{};
};

int bufferOf(const Socket& socket, int option) {
    int size = 0;
    socklen_t length = sizeof size;
    EXPECT_EQ(::getsockopt(socket.descriptor(), SOL_SOCKET, option, &size, &length), 0);
    return size;
}

int limitOf(const char* name) {
    const tk::Result<std::string> text = tk::readFile(std::string("/proc/sys/net/core/") + name, 100);
    EXPECT_TRUE(text.isOk());
    return text.isOk() ? static_cast<int>(::strtol(text->c_str(), nullptr, 10)) : 0;
}

TEST(SocketBuffers, AreAsLargeAsTheSystemAllowsWhereTheyCannotBeLarger) {
    Socket socket;
    ASSERT_TRUE(socket.open(NETLINK_ROUTE).isOk());
    const int large = 2 * limitOf("wmem_max") + 2 * limitOf("rmem_max");
    const WithoutAdministration without;
    ASSERT_TRUE(without.isDone);
    socket.setBuffers(large, large);
    EXPECT_EQ(bufferOf(socket, SO_SNDBUF), 2 * limitOf("wmem_max"));
    EXPECT_EQ(bufferOf(socket, SO_RCVBUF), 2 * limitOf("rmem_max"));
}

/// The kernel repeats what it refuses, so that its answers can be made as large as a test wants.
class SocketReceive : public ::testing::Test {
protected:
    void SetUp() override {
        if (::geteuid() != 0) GTEST_SKIP() << "only root gets buffers of this size";
        ASSERT_TRUE(socket.open(NETLINK_ROUTE).isOk());
        socket.setBuffers(1024 * 1024, 1024 * 1024);
    }
    /// Makes the kernel refuse a message of so many bytes.
    void provoke(std::size_t bytes) {
        std::vector<char> message(bytes);
        const nlmsghdr header{static_cast<std::uint32_t>(bytes), unknownType, NLM_F_REQUEST, 0, 0};
        ::memcpy(message.data(), &header, sizeof header);
        ASSERT_TRUE(socket.send(message.data(), message.size()).isOk());
    }
    /// What is received, with the sizes of its messages in `sizes`.
    Socket::Received receive() {
        const auto result =
            socket.receive(0, [this](const nlmsghdr& message) { sizes.push_back(message.nlmsg_len); });
        EXPECT_TRUE(result.isOk());
        return *result;
    }
    static constexpr std::uint16_t unknownType = RTM_MAX + 4;
    static constexpr std::size_t overhead = sizeof(nlmsghdr) + sizeof(int);  // of the refusal

    Socket socket;
    std::vector<std::size_t> sizes;
};

TEST_F(SocketReceive, TakesADatagramOfAnySizeUpToTheLimit) {
    for (const std::size_t size :
         {std::size_t{1000}, std::size_t{100} * 1024, Socket::datagramLimit - 1000}) {
        provoke(size);
        EXPECT_EQ(receive(), Socket::Received::datagram);
        ASSERT_EQ(sizes.size(), 1U);
        EXPECT_GE(sizes[0], size + overhead);  // what is repeated, and perhaps why it is refused
        sizes.clear();
    }
}

TEST_F(SocketReceive, LosesALargerDatagramAlone) {
    provoke(Socket::datagramLimit);
    provoke(1000);
    EXPECT_EQ(receive(), Socket::Received::lost);
    EXPECT_TRUE(sizes.empty()) << "the start of a datagram is no message";
    EXPECT_EQ(receive(), Socket::Received::datagram);
    EXPECT_EQ(sizes.size(), 1U);
}

TEST_F(SocketReceive, FindsNothingWhereTheKernelHasSaidNothing) {
    EXPECT_EQ(receive(), Socket::Received::nothing);
}

/// A socket whose datagrams the test sends, as the kernel would.
class SocketMessages : public ::testing::Test {
protected:
    void SetUp() override {
        int ends[2];
        ASSERT_TRUE(socket.open(NETLINK_ROUTE).isOk());
        ASSERT_EQ(::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
        kernel = tk::Fd(ends[0]);
        const tk::Fd own(ends[1]);
        ASSERT_GE(::dup3(own.get(), socket.descriptor(), O_CLOEXEC), 0);
    }
    static nlmsghdr ofLength(std::uint32_t length) { return {length, RTM_NEWLINK, 0, 0, 0}; }
    /// How many messages of one datagram are visited.
    int visited(const std::vector<nlmsghdr>& headers) {
        const std::size_t size = headers.size() * sizeof headers[0];
        EXPECT_EQ(::send(kernel.get(), headers.data(), size, 0), static_cast<ssize_t>(size));
        int count = 0;
        const auto visit = [&count](const nlmsghdr&) {
            if (++count > 1000) ::abort();  // it would never end
        };
        const auto result = socket.receive(0, visit);
        EXPECT_TRUE(result.isOk() && *result == Socket::Received::datagram);
        return count;
    }

    Socket socket;
    tk::Fd kernel;
};

TEST_F(SocketMessages, AreVisitedOneByOne) {
    EXPECT_EQ(visited({ofLength(16), ofLength(16), ofLength(16)}), 3);
    EXPECT_EQ(visited({ofLength(32), ofLength(16), ofLength(16)}), 2);
}

TEST_F(SocketMessages, EndWhereALengthCannotBe) {
    for (const std::uint32_t length : {0U, 15U, 33U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFF0U, 0xFFFFFFFFU})
        EXPECT_EQ(visited({ofLength(16), ofLength(length), ofLength(16)}), 1) << length;
}

}  // namespace
}  // namespace netlink
