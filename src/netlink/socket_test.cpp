#include "netlink/socket.h"

#include <linux/capability.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>

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
    return text.isOk() ? std::atoi(text->c_str()) : 0;
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

}  // namespace
}  // namespace netlink
