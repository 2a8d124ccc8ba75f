// The real kernel, in a network namespace of the test's own.

#include "nat/listeners.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "links/testing/fakekernel.h"
#include "tk/fd.h"
#include "tk/testing/commands.h"
#include "tk/testing/privatenetwork.h"

namespace nat {
namespace {

using links::testing::address;

enum class Answer { nobody, somebody, unknown };

constexpr std::uint16_t port = 4321;

class ListenersTest : public ::testing::TestWithParam<std::uint8_t> {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root";
        bool failed = false;
        if (::if_nametoindex("outside") == 0)
            tk::testing::run(
                "ip link add outside type veth peer name inside && ip link set outside up && "
                "ip link set inside up && ip address add 198.51.100.1/24 dev outside && "
                "ip address add 192.0.2.1/24 dev inside",
                failed);
        ASSERT_FALSE(failed);
        ASSERT_EQ(listeners.open().reason(), "");
    }
    static bool isTcp() { return GetParam() == IPPROTO_TCP; }
    static tk::Fd make(int family = AF_INET) {
        return tk::Fd(::socket(family, isTcp() ? SOCK_STREAM : SOCK_DGRAM, 0));
    }
    static void listen(const tk::Fd& socket) {
        if (!isTcp()) return;
        ASSERT_EQ(::listen(socket.get(), 1), 0);
    }
    static void serve(const tk::Fd& socket, const char* text = "0.0.0.0") {
        sockaddr_in own{AF_INET, htons(port), {address(text)}, {}};
        ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
        listen(socket);
    }
    static void bindTo(const tk::Fd& socket, const std::string& interface) {
        ASSERT_EQ(::setsockopt(socket.get(), SOL_SOCKET, SO_BINDTODEVICE, interface.c_str(),
                               static_cast<socklen_t>(interface.size())),
                  0);
    }
    Answer find() {
        const auto taken =
            listeners.isTaken({address("198.51.100.1"), GetParam(), port}, ::if_nametoindex("outside"));
        if (!taken.isOk()) return Answer::unknown;
        return *taken ? Answer::somebody : Answer::nobody;
    }

    SocketListeners listeners;
};

TEST_P(ListenersTest, NobodyIsThereAtFirst) {
    EXPECT_EQ(find(), Answer::nobody);
}

TEST_P(ListenersTest, AServiceForAllAddressesIsFound) {
    const tk::Fd service = make();
    serve(service);
    EXPECT_EQ(find(), Answer::somebody);
}

TEST_P(ListenersTest, AServiceForTheAddressOrTheInterfaceIsFound) {
    const tk::Fd service = make();
    bindTo(service, "outside");
    serve(service, "198.51.100.1");
    EXPECT_EQ(find(), Answer::somebody);
}

TEST_P(ListenersTest, AServiceForBothFamiliesIsFoundAndOneForIpv6AloneIsNot) {
    for (const int only : {0, 1}) {
        const tk::Fd service = make(AF_INET6);
        ASSERT_EQ(::setsockopt(service.get(), IPPROTO_IPV6, IPV6_V6ONLY, &only, sizeof only), 0);
        sockaddr_in6 own{};
        own.sin6_family = AF_INET6;
        own.sin6_port = htons(port);
        ASSERT_EQ(::bind(service.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
        listen(service);
        EXPECT_EQ(find(), only == 0 ? Answer::somebody : Answer::nobody);
    }
}

TEST_P(ListenersTest, AServiceForAnotherAddressOrInterfaceIsNotFound) {
    {
        const tk::Fd service = make();
        serve(service, "192.0.2.1");
        EXPECT_EQ(find(), Answer::nobody);
    }
    const tk::Fd service = make();
    bindTo(service, "inside");
    serve(service);
    EXPECT_EQ(find(), Answer::nobody);
}

TEST_P(ListenersTest, AConnectedSocketTakesItsPortOnlyForUdp) {
    const tk::Fd client = make();
    // The end of a tunnel: a host that got the port would get what the tunnel's peer sends.
    if (!isTcp()) {
        serve(client, "198.51.100.1");
        sockaddr_in peer{AF_INET, htons(53), {address("198.51.100.2")}, {}};
        ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&peer), sizeof peer), 0);
        EXPECT_EQ(find(), Answer::somebody);
        return;
    }
    sockaddr_in own{AF_INET, htons(port), {address("198.51.100.1")}, {}};
    ASSERT_EQ(::bind(client.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
    EXPECT_EQ(find(), Answer::nobody) << "bound, but it does not listen";
}

TEST_P(ListenersTest, TheOtherProtocolDoesNotCount) {
    const tk::Fd service(::socket(AF_INET, isTcp() ? SOCK_DGRAM : SOCK_STREAM, 0));
    sockaddr_in own{AF_INET, htons(port), {INADDR_ANY}, {}};
    ASSERT_EQ(::bind(service.get(), reinterpret_cast<sockaddr*>(&own), sizeof own), 0);
    if (!isTcp()) {
        ASSERT_EQ(::listen(service.get(), 1), 0);
    }
    EXPECT_EQ(find(), Answer::nobody);
}

INSTANTIATE_TEST_SUITE_P(Protocols, ListenersTest, ::testing::Values(IPPROTO_TCP, IPPROTO_UDP),
                         [](const auto& row) { return row.param == IPPROTO_TCP ? "Tcp" : "Udp"; });

}  // namespace
}  // namespace nat
