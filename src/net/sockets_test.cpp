#include "net/sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "net/convert.h"
#include "tk/fd.h"
#include "tk/platform.h"
#include "tk/testing/capturedoutput.h"

namespace gateway {

namespace {

constexpr int loopback = 1;  // the index of "lo" in every network namespace
const std::uint32_t loopbackAddress = htonl(INADDR_LOOPBACK);

/// Puts the whole test into a network of its own with only a loopback interface: nobody else uses port 1900
/// there, and no datagram leaves it.
void enterOwnNetwork() {
    ASSERT_EQ(unshare(CLONE_NEWNET), 0) << "this test needs root: " << strerror(errno);
    const tk::Fd control(::socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    strncpy(request.ifr_name, "lo", sizeof request.ifr_name - 1);
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    ASSERT_EQ(ioctl(control.get(), SIOCSIFFLAGS, &request), 0) << strerror(errno);
}

/// All tests of this file run in that network.
class OwnNetwork : public testing::Test {
protected:
    static void SetUpTestSuite() { enterOwnNetwork(); }
};
class UdpSocket : public OwnNetwork {};
class SsdpSocket : public OwnNetwork {};
class TcpListener : public OwnNetwork {};
class Sockets : public OwnNetwork {};

int option(const tk::Fd& socket, int level, int name) {
    int value = 0;
    socklen_t size = sizeof value;
    EXPECT_EQ(getsockopt(socket.get(), level, name, &value, &size), 0);
    return value;
}

std::string deviceOf(const tk::Fd& socket) {
    char name[IFNAMSIZ] = {};
    socklen_t size = sizeof name;
    EXPECT_EQ(getsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, name, &size), 0);
    return name;
}

sockaddr_in boundTo(const tk::Fd& socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
    return address;
}

/// Renames an interface of the test's own network, and brings it up.
void renameInterface(const char* from, const char* to) {
    const tk::Fd control(::socket(AF_INET, SOCK_DGRAM, 0));
    ifreq request{};
    strncpy(request.ifr_name, from, sizeof request.ifr_name - 1);
    ASSERT_EQ(ioctl(control.get(), SIOCSIFFLAGS, &request), 0) << strerror(errno);
    strncpy(request.ifr_newname, to, sizeof request.ifr_newname - 1);
    ASSERT_EQ(ioctl(control.get(), SIOCSIFNAME, &request), 0) << strerror(errno);
    ifreq up{};
    strncpy(up.ifr_name, to, sizeof up.ifr_name - 1);
    up.ifr_flags = IFF_UP | IFF_RUNNING;
    ASSERT_EQ(ioctl(control.get(), SIOCSIFFLAGS, &up), 0) << strerror(errno);
}

/// How many connections may wait at a listener.
unsigned queueOf(const tk::Fd& listener) {
    tcp_info info{};
    socklen_t size = sizeof info;
    EXPECT_EQ(getsockopt(listener.get(), IPPROTO_TCP, TCP_INFO, &info, &size), 0);
    return info.tcpi_sacked;  // has this meaning while a socket listens
}

/// A port that nobody listens on at present.
int freePort() {
    const tk::Fd probe(openTcpListener("lo", 0));
    return ntohs(boundTo(probe).sin_port);
}

TEST_F(UdpSocket, IsBoundToTheDeviceAndToNoPort) {
    const tk::Fd socket(openUdpSocket("lo"));
    ASSERT_TRUE(socket.isOpen());
    EXPECT_EQ(option(socket, SOL_SOCKET, SO_TYPE), SOCK_DGRAM);
    EXPECT_EQ(deviceOf(socket), "lo");
    EXPECT_EQ(boundTo(socket).sin_port, 0);
}

TEST_F(UdpSocket, AbsentNameCountsAsEmptyAndBindsToNoDevice) {
    const tk::Fd socket(openUdpSocket(nullptr));
    ASSERT_TRUE(socket.isOpen());
    EXPECT_EQ(deviceOf(socket), "");
}

TEST_F(UdpSocket, UnknownDeviceIsLoggedAndGivesNone) {
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openUdpSocket("nosuchdevice"), -1);
    EXPECT_EQ(output.text(), std::string("udp setsockopt SO_BINDTODEVICE: ") + strerror(ENODEV) + "\n");
}

TEST_F(UdpSocket, NameOfSixteenCharactersOrMoreIsCut) {
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openUdpSocket("sixteencharacter"), -1);
    EXPECT_EQ(openUdpSocket("morethansixteencharacters"), -1);
    const std::string line = std::string("udp setsockopt SO_BINDTODEVICE: ") + strerror(ENODEV) + "\n";
    EXPECT_EQ(output.text(), line + line);
}

TEST_F(UdpSocket, NameOfFifteenCharactersIsTakenWhole) {
    constexpr const char* longest = "fifteencharslan";
    renameInterface("lo", longest);
    const tk::Fd socket(openUdpSocket(longest));
    EXPECT_TRUE(socket.isOpen());
    EXPECT_EQ(deviceOf(socket), longest);
    renameInterface(longest, "lo");
}

TEST_F(UdpSocket, OfALongerNameTheKernelSeesTheBeginning) {
    constexpr const char* longest = "fifteencharslan";
    renameInterface("lo", longest);
    for (const char* name : {"fifteencharslan0", "fifteencharslan and more"}) {
        EXPECT_EQ(deviceOf(tk::Fd(openUdpSocket(name))), longest);
        EXPECT_EQ(deviceOf(tk::Fd(openTcpListener(name, 0))), longest);
    }
    renameInterface(longest, "lo");
}

TEST_F(UdpSocket, NeverBlocksAndIsNotInherited) {
    const tk::Fd socket(openUdpSocket("lo"));
    EXPECT_NE(fcntl(socket.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(socket.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(UdpSocket, FailureToOpenIsLogged) {
    rlimit before{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
    const tk::testing::CapturedOutput output;
    const auto lowestFree = static_cast<rlim_t>(tk::Fd(dup(STDERR_FILENO)).get());
    const rlimit none{lowestFree, before.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
    const int udp = openUdpSocket("lo");
    const int tcp = openTcpListener("lo", 0);
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_EQ(udp, -1);
    EXPECT_EQ(tcp, -1);
    const std::string reason = strerror(EMFILE);
    EXPECT_EQ(output.text(), "udp socket: " + reason + "\n" + "tcp socket: " + reason + "\n");
}

TEST_F(SsdpSocket, ListensOnPort1900OfItsDeviceWithTtl4) {
    const tk::Fd socket(openSsdpSocket("lo", loopback, loopbackAddress));
    ASSERT_TRUE(socket.isOpen());
    EXPECT_EQ(deviceOf(socket), "lo");
    EXPECT_EQ(ntohs(boundTo(socket).sin_port), 1900);
    EXPECT_EQ(boundTo(socket).sin_addr.s_addr, htonl(INADDR_ANY));
    EXPECT_EQ(option(socket, IPPROTO_IP, IP_MULTICAST_TTL), 4);
    EXPECT_NE(option(socket, SOL_SOCKET, SO_REUSEADDR), 0);
}

TEST_F(SsdpSocket, ReceivesWhatIsSentToTheGroup) {
    const tk::Fd listener(openSsdpSocket("lo", loopback, loopbackAddress));
    const tk::Fd sender(openUdpSocket("lo"));
    ip_mreqn out{};
    out.imr_address.s_addr = loopbackAddress;
    out.imr_ifindex = loopback;
    ASSERT_EQ(setsockopt(sender.get(), IPPROTO_IP, IP_MULTICAST_IF, &out, sizeof out), 0);
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(1900);
    group.sin_addr.s_addr = toAddress("239.255.255.250");
    ASSERT_EQ(sendto(sender.get(), "hello", 5, 0, reinterpret_cast<const sockaddr*>(&group), sizeof group),
              5);

    char bytes[16] = {};
    EXPECT_EQ(recv(listener.get(), bytes, sizeof bytes, MSG_DONTWAIT), 5);
    EXPECT_STREQ(bytes, "hello");
}

TEST_F(SsdpSocket, TwoMayShareThePort) {
    const tk::Fd first(openSsdpSocket("lo", loopback, loopbackAddress));
    const tk::Fd second(openSsdpSocket("lo", loopback, loopbackAddress));
    EXPECT_TRUE(first.isOpen());
    EXPECT_TRUE(second.isOpen());
}

TEST_F(SsdpSocket, UnknownDeviceIsLoggedOnceByTheUdpSocket) {
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openSsdpSocket("nosuchdevice", 1, loopbackAddress), -1);
    EXPECT_EQ(output.text(), std::string("udp setsockopt SO_BINDTODEVICE: ") + strerror(ENODEV) + "\n");
}

TEST_F(SsdpSocket, PortThatIsTakenIsLogged) {
    const tk::Fd other(::socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in any{};
    any.sin_family = AF_INET;
    any.sin_port = htons(1900);
    ASSERT_EQ(bind(other.get(), reinterpret_cast<const sockaddr*>(&any), sizeof any), 0);
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openSsdpSocket("lo", loopback, loopbackAddress), -1);
    EXPECT_EQ(output.text(), std::string("udp bind: ") + strerror(EADDRINUSE) + "\n");
}

TEST_F(SsdpSocket, MembershipOnAMissingInterfaceIsLogged) {
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openSsdpSocket("lo", 0x7FFFFFFF, loopbackAddress), -1);
    EXPECT_EQ(output.text(), std::string("setsockopt IP_ADD_MEMBERSHIP: ") + strerror(ENODEV) + "\n");
}

TEST_F(TcpListener, ListensOnItsDeviceAndPort) {
    const int port = freePort();
    const tk::Fd socket(openTcpListener("lo", port));
    ASSERT_TRUE(socket.isOpen());
    EXPECT_EQ(deviceOf(socket), "lo");
    EXPECT_EQ(ntohs(boundTo(socket).sin_port), port);
    EXPECT_EQ(option(socket, SOL_SOCKET, SO_ACCEPTCONN), 1);
    EXPECT_NE(option(socket, SOL_SOCKET, SO_REUSEADDR), 0);
    EXPECT_NE(fcntl(socket.get(), F_GETFL) & O_NONBLOCK, 0);
    EXPECT_NE(fcntl(socket.get(), F_GETFD) & FD_CLOEXEC, 0);
}

TEST_F(TcpListener, HasAQueueOfOne) {
    const tk::Fd socket(openTcpListener("lo", freePort()));
    EXPECT_EQ(queueOf(socket), 1U);
}

TEST_F(TcpListener, ItsConnectionsDropWhatNobodyTakesFor10Seconds) {
    const tk::Fd listener(openTcpListener("lo", freePort()));
    const sockaddr_in address = boundTo(listener);
    const tk::Fd client(::socket(AF_INET, SOCK_STREAM, 0));
    ASSERT_EQ(::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    const tk::Fd accepted(::accept(listener.get(), nullptr, nullptr));
    EXPECT_EQ(option(accepted, IPPROTO_TCP, TCP_USER_TIMEOUT), 10000);
}

TEST_F(TcpListener, UnknownDeviceIsLoggedWithoutATcpPrefix) {
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openTcpListener("nosuchdevice", 0), -1);
    EXPECT_EQ(output.text(), std::string("setsockopt SO_BINDTODEVICE: ") + strerror(ENODEV) + "\n");
}

TEST_F(TcpListener, PortThatIsTakenIsLogged) {
    const tk::Fd first(openTcpListener("lo", 0));
    const tk::testing::CapturedOutput output;
    EXPECT_EQ(openTcpListener("lo", ntohs(boundTo(first).sin_port)), -1);
    EXPECT_EQ(output.text(), std::string("tcp bind: ") + strerror(EADDRINUSE) + "\n");
}

TEST_F(Sockets, AFailureLeavesNoDescriptorBehind) {
    const tk::testing::CapturedOutput output;
    const int before = tk::Fd(dup(STDERR_FILENO)).get();
    EXPECT_EQ(openSsdpSocket("lo", 0x7FFFFFFF, loopbackAddress), -1);
    EXPECT_EQ(openTcpListener("nosuchdevice", 0), -1);
    EXPECT_EQ(tk::Fd(dup(STDERR_FILENO)).get(), before);
}

class SendWhole : public testing::Test {
protected:
    SendWhole() {
        const tk::Fd listener(::socket(AF_INET, SOCK_STREAM, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        const int small = 4096;
        EXPECT_EQ(::setsockopt(listener.get(), SOL_SOCKET, SO_RCVBUF, &small, sizeof small), 0);
        EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        EXPECT_EQ(::listen(listener.get(), 1), 0);
        EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &size), 0);
        EXPECT_EQ(::connect(sender.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
        receiver.reset(::accept(listener.get(), nullptr, nullptr));
    }
    tk::Fd sender{::socket(AF_INET, SOCK_STREAM, 0)};
    tk::Fd receiver;
};

TEST_F(SendWhole, TakesALargeTextFromAPeerThatDoesNotReadWithoutWaiting) {
    const int small = 4608;
    ASSERT_EQ(::setsockopt(sender.get(), SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    EXPECT_TRUE(sendWhole(sender.get(), std::string(100000, 'x')));
}

TEST_F(SendWhole, ReportsWhatDoesNotFitWithoutWaiting) {
    // NOLINTNEXTLINE(bugprone-string-constructor): that is the point
    EXPECT_FALSE(sendWhole(sender.get(), std::string(100000000, 'x')));
}

TEST_F(SendWhole, ReportsAPeerThatIsGoneWithoutASignal) {
    receiver.reset();
    (void)sendWhole(sender.get(), "x");  // the reply tells the kernel that nobody is there
    EXPECT_FALSE(sendWhole(sender.get(), "x"));
}

TEST(ServerString, HasNoBlankBetweenVersionAndProtocol) {
    EXPECT_EQ(serverString, "Quillnet/" + tk::getOSVersion() + "UPnP/1.0 Vantorel UPnP/1.0");
}

TEST(ServerString, LinesEndInCarriageReturnAndLineFeed) {
    EXPECT_EQ(crlf, "\x0d\x0a");
}

}  // namespace

}  // namespace gateway
