// Connections: how they come, how long and how many they may be, and how they end.

#include "http/httpserver.h"

#include <netinet/in.h>
#include <sys/resource.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/testing/serverfixture.h"

namespace gateway {

namespace {

/// False when the process may not have as many as a full table takes.
bool allowDescriptors() {
    const rlimit enough{4096, 4096};
    return ::setrlimit(RLIMIT_NOFILE, &enough) == 0;
}

TEST_F(Server, LogsAResponseThatDoesNotGoOutWholeAndClosesAllTheSame) {
    host.description.resize(100000000, 'x');
    Client client(port);
    client.send("GET /gateway.xml HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(log(), "write error\n");
    EXPECT_FALSE(server.hasConnections(host.device));
}

TEST_F(Server, NeverAnswersARequestOfMoreThan128KiB) {
    constexpr std::size_t limit = std::size_t{128} * 1024;
    for (const std::size_t length : {limit, limit + 1}) {
        const std::string head =
            "POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\nCONTENT-LENGTH: 130000\r\nFILLER: ";
        const std::string end = "\r\n\r\n" + std::string(130000, 'x');
        const std::string request = head + std::string(length - head.size() - end.size(), ' ') + end;
        Client client(port);
        for (std::size_t sent = 0; sent < request.size(); sent += 4096) {
            client.send(request.substr(sent, 4096));
            loop.settle(2);
        }
        EXPECT_EQ(client.received(), length == limit ? "HTTP/1.1 200 OK\r\n\r\n" : "");
        client.close();
        loop.settle();
    }
}

TEST_F(Server, AnswersARequestThatComesByteByByteWithItsLastByte) {
    const std::string request =
        "POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\ncontent-length: 3\r\n\r\nabc";
    Client client(port);
    for (const char byte : request) {
        EXPECT_EQ(service.called, "");
        client.send(std::string(1, byte));
        loop.settle(3);
    }
    EXPECT_EQ(client.received(), "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(service.body, "abc");
}

TEST_F(Server, EndsAnUnfinishedRequestAfter10SecondsFromAcceptWithoutAnAnswer) {
    Client client(port);
    client.send("GET / HT");
    loop.settle();
    loop.advance(500);
    client.send("TP/1.1\r\n");  // data does not restart the time limit
    loop.settle();
    loop.advance(499);
    EXPECT_FALSE(client.isClosed());
    loop.advance(1);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(client.received(), "");
    EXPECT_EQ(log(), "http request timeout\n");
    EXPECT_FALSE(server.hasConnections(host.device));
}

TEST_F(Server, KeepsAHopelessRequestUntilItsTimeIsUp) {
    for (const char* request :
         {"GET / HTTP/1.1\r\nno colon\r\n\r\n", "GET / HTTP/1.1\r\nContent-Length: 1\r\n\r\nab"}) {
        Client client(port);
        client.send(request);
        loop.settle();
        client.send(std::string(200000, 'x'));
        loop.settle(200);
        EXPECT_FALSE(client.isClosed());
        EXPECT_TRUE(server.hasConnections(host.device));
        loop.advance(1000);
        EXPECT_EQ(client.received(), "");
    }
    EXPECT_EQ(log(), "http request timeout\nhttp request timeout\n");
}

TEST_F(Server, EndsAConnectionThatItsClientClosesSilently) {
    Client client(port);
    client.send("GET /");
    loop.settle();
    EXPECT_TRUE(server.hasConnections(host.device));
    client.close();
    loop.settle();
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_EQ(loop.looper.runner().timerCount(), 0u);
    EXPECT_EQ(loop.looper.runner().socketCount(), 1u);  // the listener
    EXPECT_EQ(log(), "");
}

TEST_F(Server, ServesOthersWhileOneClientStalls) {
    Client stalled(port);
    stalled.send("POST /upnp");
    loop.settle();
    EXPECT_EQ(exchange("GET /unknown HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(Server, DropsTheConnectionsOfADeviceSilently) {
    Client client(port);
    client.send("GET /");
    loop.settle();
    server.dropConnections(host.device);
    EXPECT_TRUE(client.isClosed());
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_EQ(log(), "");
}

TEST_F(Server, KeepsNoMemoryForWhatItWillNotAnswer) {
    Client hopeless(port);
    hopeless.send("POST /upnp/control/osinfo HTTP/1.1\r\nCONTENT-LENGTH: 100000\r\n\r\n" +
                  std::string(99999, 'x'));
    loop.settle(100);
    ASSERT_EQ(server.open().size(), 1u);
    const std::string& kept = server.open().begin()->second->received();
    EXPECT_GE(kept.capacity(), 99999u);
    hopeless.send("xx");  // more than was announced
    loop.settle(2);
    EXPECT_LT(kept.capacity(), 100u);
}

TEST_F(Server, TakesNoMoreThan128ConnectionsOfOneAddress) {
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 129; ++i) {
        clients.push_back(std::make_unique<Client>(port));
        loop.settle(2);
    }
    loop.settle();
    EXPECT_FALSE(clients[127]->isClosed());
    EXPECT_TRUE(clients[128]->isClosed());
    clients[0]->send("GET /unknown HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(clients[0]->received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("GET /unknown HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(Server, AFullTableDropsTheOldestOfTheAddressThatHoldsMost) {
    if (!allowDescriptors()) GTEST_SKIP() << "needs 4096 descriptors";
    std::vector<std::unique_ptr<Client>> clients;
    const int counts[] = {127, 128, 127, 127};  // 509 in all, from 127.0.0.1 up
    for (std::uint32_t host = 0; host < 4; ++host)
        for (int i = 0; i < counts[host]; ++i) {
            clients.push_back(std::make_unique<Client>(port, INADDR_LOOPBACK + host));
            loop.settle(1);
        }
    const std::size_t oldestOfTheBusiest = 127;
    std::vector<std::unique_ptr<Client>> others;
    for (std::uint32_t host = 10; host < 14; ++host) {
        others.push_back(std::make_unique<Client>(port, INADDR_LOOPBACK + host));
        loop.settle(2);
    }
    EXPECT_TRUE(clients[oldestOfTheBusiest]->isClosed());
    EXPECT_FALSE(clients[oldestOfTheBusiest + 1]->isClosed());
    EXPECT_FALSE(clients[0]->isClosed());
    others.back()->send("GET /unknown HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(others.back()->received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(log(), "");
}

TEST_F(Server, AFullTableDropsTheOldestOfTheAddressesThatHoldAsMany) {
    if (!allowDescriptors()) GTEST_SKIP() << "needs 4096 descriptors";
    std::vector<std::unique_ptr<Client>> clients;
    for (const std::uint32_t host : {2u, 0u, 3u, 1u})
        for (int i = 0; i < 128; ++i) {
            clients.push_back(std::make_unique<Client>(port, INADDR_LOOPBACK + host));
            loop.settle(1);
        }
    const Client other(port, INADDR_LOOPBACK + 10);
    loop.settle(2);
    EXPECT_TRUE(clients[0]->isClosed());
    EXPECT_FALSE(clients[1]->isClosed());
    EXPECT_FALSE(clients[128]->isClosed());
}

TEST_F(Server, LeavesAClientForWhichNoDescriptorIsLeftInTheQueueAndLooksAgainAfterAWhile) {
    Client client(port);
    client.send("GET /unknown HTTP/1.1\r\n\r\n");
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const auto lowestFree = static_cast<rlim_t>(tk::Fd(::dup(STDERR_FILENO)).get());
    const rlimit none{lowestFree, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    loop.settle();
    loop.advance(10);
    loop.settle();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    loop.advance(9);
    EXPECT_EQ(client.received(), "");
    loop.advance(1);
    loop.settle();
    EXPECT_EQ(client.received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(log(), "accept failed\naccept failed\n");  // a line for each look
}

TEST_F(Server, LogsAnAcceptThatFailsAndServesTheNextClient) {
    server.accept(listener.get(), tk::readable);  // no client is waiting
    EXPECT_EQ(exchange("GET /unknown HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(log(), "accept failed\n");
}

using ServerDeathTest = Server;

TEST_F(ServerDeathTest, EndsTheProcessWhenNoInterfaceOwnsTheListener) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            Client client(port);
            host.listener = -1;
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            server.accept(listener.get(), tk::readable);
        },
        testing::ExitedWithCode(1), "oo jeaaa");
}

TEST_F(ServerDeathTest, EndsTheProcessWhenAReadySocketHasNoConnection) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(
        {
            ::dup2(STDERR_FILENO, STDOUT_FILENO);
            server.connRead(listener.get(), tk::readable);
        },
        testing::ExitedWithCode(1), "fatal error: could not find http conn");
}

}  // namespace

}  // namespace gateway
