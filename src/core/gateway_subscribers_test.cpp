// Subscribers whose host names are being looked up while the gateway changes.

#include <arpa/inet.h>
#include <sys/socket.h>

#include "core/testing/gatewayfixture.h"
#include "tk/fd.h"

namespace gateway {

namespace {

class WaitingSubscriber : public GatewayTest {
protected:
    void SetUp() override {
        GatewayTest::SetUp();
        if (!captures) return;
        loop.bus.keepSilent({14}, 3);
        start();
        add(item(1, 2));
        add(item(2, 1));
        set(settings(true));
        takeLog();
    }
    /// Sends a SUBSCRIBE whose callback holds a host name, so that the resolver is asked.
    void subscribeTo(const std::string& service) {
        client.reset(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(2828);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::connect(client.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        const std::string request = "SUBSCRIBE /upnp/event/" + service +
                                    " HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\nNT: upnp:event\r\n"
                                    "CALLBACK: <http://host.example/>\r\n\r\n";
        ASSERT_EQ(::send(client.get(), request.data(), request.size(), 0),
                  static_cast<ssize_t>(request.size()));
        loop.settle();
        ASSERT_EQ(loop.bus.asked.size(), 1U);
    }
    void tellAddress() {
        tk::message reply;
        reply.insert_be32(4, htonl(INADDR_LOOPBACK));
        loop.end(1, reply);
    }
    /// The title of the answer, or the fate of the connection.
    std::string outcome() const {
        char bytes[4096];
        const ssize_t length = ::recv(client.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        if (length <= 0) return length == 0 ? "closed" : "nothing yet";
        const std::string answer(bytes, static_cast<std::size_t>(length));
        return answer.substr(0, answer.find('\r'));
    }

    tk::Fd client;
};

TEST_F(WaitingSubscriber, IsAnsweredWhenTheNameIsKnown) {
    subscribeTo("wanipconn-2");
    EXPECT_EQ(outcome(), "nothing yet");
    EXPECT_EQ(get(), settings(true));  // the bus is served meanwhile
    tellAddress();
    EXPECT_EQ(outcome(), "HTTP/1.1 200 OK");
}

TEST_F(WaitingSubscriber, FindsNothingWhenItsServiceGoes) {
    subscribeTo("wanipconn-2");
    removeItem(2);
    EXPECT_EQ(outcome(), "HTTP/1.1 404 Not Found");
    EXPECT_EQ(loop.bus.forgotten, loop.bus.asked);
    tellAddress();
}

TEST_F(WaitingSubscriber, IsAnsweredWhenUpnpIsSwitchedOffMeanwhile) {
    subscribeTo("osinfo");
    set(settings(false));
    EXPECT_EQ(outcome(), "nothing yet");
    tellAddress();
    EXPECT_EQ(outcome(), "HTTP/1.1 200 OK");
}

TEST_F(WaitingSubscriber, IsDroppedWithTheInterfaceThatItCameBy) {
    subscribeTo("wanipconn-2");
    loop.notify({20, 0}, 0x10004, goneRecord(1, "lan"));
    EXPECT_EQ(outcome(), "closed");
    tellAddress();
    EXPECT_EQ(takeLog().find("subscribe"), std::string::npos);
}

TEST_F(WaitingSubscriber, IsDroppedAtTheEnd) {
    subscribeTo("osinfo");
    stop();
    EXPECT_EQ(outcome(), "closed");
    EXPECT_EQ(loop.bus.forgotten, loop.bus.asked);
}

}  // namespace

}  // namespace gateway
