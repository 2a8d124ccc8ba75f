// Requests whose answer a service keeps waiting.

#include "http/httpserver.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "http/testing/serverfixture.h"

namespace gateway {

namespace {

class WaitingRequests : public Server {
protected:
    WaitingRequests() { service.waits = true; }

    /// Subscribes over a connection of its own, and lets the loop accept it.
    std::unique_ptr<Client> subscribe(std::uint32_t from = INADDR_LOOPBACK) {
        auto client = std::make_unique<Client>(port, from);
        client->send("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n");
        loop.settle();
        return client;
    }
};

TEST_F(WaitingRequests, DoNotKeepOthersWaiting) {
    const auto waiting = subscribe();
    EXPECT_TRUE(exchange("GET /gateway.xml HTTP/1.1\r\n\r\n").starts_with("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(waiting->received(), "");
    EXPECT_FALSE(waiting->isClosed());
}

TEST_F(WaitingRequests, AreAnsweredOnceAndClosed) {
    const auto waiting = subscribe();
    ASSERT_EQ(service.waiting.size(), 1U);
    service.waiting.front()->client.answer(HTTPMessage(200));
    EXPECT_EQ(waiting->received(), "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_TRUE(waiting->isClosed());
    EXPECT_TRUE(service.waiting.empty());
    EXPECT_EQ(host.ended, 1);
}

TEST_F(WaitingRequests, AreNotUnderTheTimeLimitOfRequests) {
    const auto waiting = subscribe();
    loop.advance(2000);
    EXPECT_FALSE(waiting->isClosed());
    EXPECT_EQ(log(), "");
}

TEST_F(WaitingRequests, AreAnsweredToAClientThatHasClosedItsSide) {
    const auto waiting = subscribe();
    EXPECT_EQ(::shutdown(waiting->socket.get(), SHUT_WR), 0);
    loop.settle();
    ASSERT_EQ(service.waiting.size(), 1U);
    service.waiting.front()->client.answer(HTTPMessage(200));
    EXPECT_EQ(waiting->received(), "HTTP/1.1 200 OK\r\n\r\n");
}

TEST_F(WaitingRequests, AreAnsweredLikeOthersWhenTheirServiceGoes) {
    const auto waiting = subscribe();
    server.removeService(&service);
    EXPECT_EQ(waiting->received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_TRUE(waiting->isClosed());
    EXPECT_TRUE(service.waiting.empty());
}

TEST_F(WaitingRequests, StayWhenAnotherServiceGoes) {
    const auto waiting = subscribe();
    FakeService other;
    server.registerService(&other, "/upnp/event/other", "/upnp/control/other");
    server.removeService(&other);
    EXPECT_EQ(service.waiting.size(), 1U);
    EXPECT_FALSE(waiting->isClosed());
}

TEST_F(WaitingRequests, AreGivenUpWithTheirInterface) {
    const auto waiting = subscribe();
    server.dropConnections(host.device);
    EXPECT_TRUE(service.waiting.empty());
    EXPECT_EQ(waiting->received(), "");
    EXPECT_TRUE(waiting->isClosed());
}

TEST_F(WaitingRequests, OfOneAddressAreLimitedAndOthersStillMayWait) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 16; ++i) clients.push_back(subscribe());
    EXPECT_EQ(service.waiting.size(), 16U);
    EXPECT_EQ(subscribe()->received(), "HTTP/1.1 412 Precondition Failed\r\n\r\n");
    clients.push_back(subscribe(INADDR_LOOPBACK + 1));
    EXPECT_EQ(service.waiting.size(), 17U);
    service.waiting.front()->client.answer(HTTPMessage(200));
    clients.push_back(subscribe());
    EXPECT_EQ(service.waiting.size(), 17U);
}

TEST_F(WaitingRequests, OfAllAreLimited) {
    std::vector<std::unique_ptr<Client>> clients;
    for (std::uint32_t i = 0; i < 64; ++i) clients.push_back(subscribe(INADDR_LOOPBACK + i % 8));
    EXPECT_EQ(service.waiting.size(), 64U);
    EXPECT_EQ(subscribe(INADDR_LOOPBACK + 9)->received(), "HTTP/1.1 412 Precondition Failed\r\n\r\n");
}

}  // namespace

}  // namespace gateway
