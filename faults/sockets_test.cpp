// The sockets of an interface: each step that fails is one line of the log, and leaves no descriptor.
#include "net/sockets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <ostream>
#include <string>

#include <gtest/gtest.h>

#include "faults/injection.h"
#include "tk/fd.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/privatenetwork.h"

namespace faults {

namespace {

int openUdp() {
    return gateway::openUdpSocket("lo");
}
int openSsdp() {
    return gateway::openSsdpSocket("lo", 1, htonl(INADDR_LOOPBACK));
}
int openTcp() {
    return gateway::openTcpListener("lo", 2828);
}

struct Step {
    const char* name;
    int (*open)();
    Fault fault;
    const char* logged;
};

constexpr Step steps[] = {
    {"UdpSocket", openUdp, {Call::socket, 1, ENFILE}, "udp socket: "},
    {"UdpDevice", openUdp, {Call::setsockopt, 1, EPERM}, "udp setsockopt SO_BINDTODEVICE: "},
    {"SsdpSocket", openSsdp, {Call::socket, 1, ENOMEM}, "udp socket: "},
    {"SsdpDevice", openSsdp, {Call::setsockopt, 1, ENODEV}, "udp setsockopt SO_BINDTODEVICE: "},
    {"SsdpReuse", openSsdp, {Call::setsockopt, 2, ENOMEM}, "setsockopt SO_REUSEADDR: "},
    {"SsdpBind", openSsdp, {Call::bind, 1, EACCES}, "udp bind: "},
    {"SsdpGroup", openSsdp, {Call::setsockopt, 3, ENOBUFS}, "setsockopt IP_ADD_MEMBERSHIP: "},
    {"SsdpTtl", openSsdp, {Call::setsockopt, 4, ENOMEM}, "setsockopt IP_MULTICAST_TTL: "},
    {"TcpSocket", openTcp, {Call::socket, 1, EMFILE}, "tcp socket: "},
    {"TcpDevice", openTcp, {Call::setsockopt, 1, ENODEV}, "setsockopt SO_BINDTODEVICE: "},
    {"TcpReuse", openTcp, {Call::setsockopt, 2, ENOMEM}, "setsockopt SO_REUSEADDR: "},
    {"TcpBind", openTcp, {Call::bind, 1, EADDRINUSE}, "tcp bind: "},
    {"TcpListen", openTcp, {Call::listen, 1, EADDRINUSE}, "tcp listen: "},
};

std::ostream& operator<<(std::ostream& out, const Step& step) {
    return out << step.name;
}

class SocketStep : public testing::TestWithParam<Step> {};

TEST_P(SocketStep, ThatFailsIsLoggedAndLeavesNoDescriptor) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    const tk::testing::CapturedOutput output;
    const int lowestFree = tk::Fd(::dup(STDERR_FILENO)).get();
    begin(GetParam().fault);
    {
        const InProgram here;
        EXPECT_EQ(GetParam().open(), -1);
    }
    (void)end();
    EXPECT_EQ(output.text(), std::string(GetParam().logged) + ::strerror(GetParam().fault.outcome) + "\n");
    EXPECT_EQ(tk::Fd(::dup(STDERR_FILENO)).get(), lowestFree);
    EXPECT_TRUE(tk::Fd(GetParam().open()).isOpen());
}

INSTANTIATE_TEST_SUITE_P(Steps, SocketStep, testing::ValuesIn(steps),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace

}  // namespace faults
