#include "http/httpserver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <vector>

#include <gtest/gtest.h>

#include "tk/testing/testloop.h"

namespace gateway {

// The server knows interfaces only by reference.
class Device {};

namespace {

const std::uint32_t serverAddress = inet_addr("192.0.2.1");

class FakeHost final : public HTTPHost {
public:
    Device* listenerOwner(int listenSocket) override { return listenSocket == listener ? &device : nullptr; }
    std::uint32_t addressOf(const Device&) const override { return serverAddress; }
    std::string describe(std::uint32_t address) override {
        described = address;
        return description;
    }
    void connectionEnded(const Device&) override { ++ended; }

    int listener = -1;
    Device device;
    std::uint32_t described = 0;
    std::string description = "<root/>";
    int ended = 0;
};

class FakeService final : public HTTPService {
public:
    HTTPAnswer handlePost(const HTTPMessage& request, HTTPClient&) override {
        return answer("POST", request);
    }
    HTTPAnswer subscribe(const HTTPMessage& request, HTTPClient& client) override {
        if (!waits) return answer("SUBSCRIBE", request);
        if (!client.mayWait()) return HTTPMessage(412);
        auto wait = std::make_unique<Wait>(*this, client);
        waiting.push_back(wait.get());
        return wait;
    }
    HTTPAnswer unsubscribe(const HTTPMessage& request, HTTPClient&) override {
        return answer("UNSUBSCRIBE", request);
    }

    /// A request that is kept waiting. It leaves the list when it is given up or answered.
    struct Wait final : HTTPWait {
        Wait(FakeService& service, HTTPClient& client) : service(service), client(client) {}
        ~Wait() override { std::erase(service.waiting, this); }
        bool isFor(const HTTPService& candidate) const override { return &candidate == &service; }
        FakeService& service;
        HTTPClient& client;
    };

    bool waits = false;  // true when subscribers wait for their answer
    std::vector<Wait*> waiting;
    std::string called;
    std::string body;

private:
    HTTPMessage answer(const char* method, const HTTPMessage& request) {
        called = method;
        body = request.body;
        return HTTPMessage(200);
    }
};

/// A client's end of one connection.
class Client {
public:
    /// `from` is the client's own address, in host order.
    explicit Client(std::uint16_t port, std::uint32_t from = INADDR_LOOPBACK)
        : socket(::socket(AF_INET, SOCK_STREAM, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(from);
        EXPECT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    }
    void send(const std::string& text) const {
        EXPECT_EQ(::send(socket.get(), text.data(), text.size(), MSG_NOSIGNAL),
                  static_cast<ssize_t>(text.size()));
    }
    /// What has arrived so far.
    std::string received() const {
        char bytes[4096];
        const ssize_t count = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
        return count > 0 ? std::string(bytes, static_cast<std::size_t>(count)) : "";
    }
    bool isClosed() const {
        char byte;
        return ::recv(socket.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 0;
    }
    void close() { socket.reset(); }
    tk::Fd socket;
};

class Server : public testing::Test {
protected:
    Server() : listener(::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(::listen(listener.get(), 16), 0);
        socklen_t length = sizeof address;
        EXPECT_EQ(::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
        port = ntohs(address.sin_port);
        host.listener = listener.get();
        loop.looper.runner().addSocket<HTTPServer, &HTTPServer::accept>(listener.get(), &server,
                                                                        tk::readable);
        server.registerService(&service, "/upnp/event/osinfo", "/upnp/control/osinfo");
        testing::internal::CaptureStdout();
    }
    ~Server() override {
        loop.looper.runner().removeSocket(listener.get());
        if (!logTaken) testing::internal::GetCapturedStdout();
    }

    std::string log() {
        logTaken = true;
        return testing::internal::GetCapturedStdout();
    }
    /// Sends one request on a connection of its own, and returns the answer.
    std::string exchange(const std::string& request) { return loop.exchangeOverTcp(port, request); }

    tk::testing::TestLoop loop;
    FakeHost host;
    FakeService service;
    HTTPServer server{host, "/nowhere/"};
    tk::Fd listener;
    std::uint16_t port = 0;
    bool logTaken = false;
};

TEST_F(Server, DescribesTheRootForTheInterfacesAddressWhateverHostSays) {
    const std::string response = exchange("GET /gateway.xml HTTP/1.1\r\nHOST: 203.0.113.9\r\n\r\n");
    EXPECT_TRUE(response.starts_with("HTTP/1.1 200 OK\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: 7\r\n"));
    EXPECT_TRUE(response.ends_with("\r\n\r\n<root/>"));
    EXPECT_EQ(host.described, serverAddress);
}

TEST_F(Server, TakesADescriptionPathWithAQueryForAFile) {
    EXPECT_EQ(exchange("GET /gateway.xml?x HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(Server, ClosesTheConnectionAfterOneResponse) {
    Client client(port);
    client.send("GET /unknown HTTP/1.1\r\n\r\nGET /unknown HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(client.received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_TRUE(client.isClosed());
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_EQ(host.ended, 1);
}

TEST_F(Server, AnswersUnknownMethodsWith501AndALogLine) {
    EXPECT_EQ(exchange("HEAD /gateway.xml HTTP/1.1\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(exchange("get / HTTP/1.1\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(exchange("\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(log(), "what is this: 'HEAD'\nwhat is this: 'get'\nwhat is this: ''\n");
}

TEST_F(Server, LooksForThePathBeforeItChecksHost) {
    EXPECT_EQ(exchange("POST /upnp/control/other HTTP/1.1\r\nHOST: wrong\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(log(), "");
}

TEST_F(Server, RoutesEachMethodToItsOwnTable) {
    EXPECT_EQ(exchange("POST /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(service.called, "");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(service.called, "SUBSCRIBE");
    exchange("UNSUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1:2828\r\n\r\n");
    EXPECT_EQ(service.called, "UNSUBSCRIBE");
    exchange("POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1:2828\r\nCONTENT-LENGTH: 3\r\n\r\nabc");
    EXPECT_EQ(service.called, "POST");
    EXPECT_EQ(service.body, "abc");
}

struct HostCase {
    const char* name;
    const char* header;
    const char* logged;
};

class HostCheck : public Server, public testing::WithParamInterface<HostCase> {};

TEST_P(HostCheck, RefusesEveryOtherHostForEachMethodOnAKnownPath) {
    const std::pair<std::string, std::string> routes[] = {{"POST", "/upnp/control/osinfo"},
                                                          {"SUBSCRIBE", "/upnp/event/osinfo"},
                                                          {"UNSUBSCRIBE", "/upnp/event/osinfo"}};
    std::string logged;
    for (const auto& [method, path] : routes) {
        const std::string rest = std::string(" HTTP/1.1\r\n") + GetParam().header + "\r\n";
        EXPECT_EQ(exchange(method + " " + path + rest), "HTTP/1.1 400 Bad Request\r\n\r\n");
        EXPECT_EQ(exchange(method + " /unknown" + rest), "HTTP/1.1 404 Not Found\r\n\r\n");
        logged += method + ": host mismatch '" + GetParam().logged + "'\n";
    }
    EXPECT_EQ(service.called, "");
    EXPECT_EQ(log(), logged);
}

INSTANTIATE_TEST_SUITE_P(Hosts, HostCheck,
                         testing::Values(HostCase{"Missing", "", ""}, HostCase{"Empty", "HOST: \r\n", ""},
                                         HostCase{"AnotherPort", "HOST: 192.0.2.1:80\r\n", "192.0.2.1:80"},
                                         HostCase{"AName", "HOST: gateway\r\n", "gateway"},
                                         HostCase{"AnotherInterface", "HOST: 192.0.2.9\r\n", "192.0.2.9"},
                                         HostCase{"TrailingBlank", "HOST: 192.0.2.1 \r\n", "192.0.2.1 "}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Server, LogsAResponseThatDoesNotGoOutWholeAndClosesAllTheSame) {
    host.description = std::string(100000000, 'x');
    Client client(port);
    client.send("GET /gateway.xml HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(log(), "write error\n");
    EXPECT_FALSE(server.hasConnections(host.device));
}

TEST_F(Server, NeverAnswersARequestOfMoreThan128KiB) {
    const auto post = [](std::size_t bodyLength) {
        return "POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\nCONTENT-LENGTH: " +
               std::to_string(bodyLength) + "\r\n\r\n" + std::string(bodyLength, 'x');
    };
    for (const std::size_t bodyLength : {std::size_t{120} * 1024, std::size_t{140} * 1024}) {
        Client client(port);
        const std::string request = post(bodyLength);
        for (std::size_t sent = 0; sent < request.size(); sent += 4096) {
            client.send(request.substr(sent, 4096));
            loop.settle(2);
        }
        EXPECT_EQ(client.received(), bodyLength < 128 * 1024 ? "HTTP/1.1 200 OK\r\n\r\n" : "");
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
    const rlimit enough{4096, 4096};
    if (::setrlimit(RLIMIT_NOFILE, &enough) != 0) GTEST_SKIP() << "needs 4096 descriptors";
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

TEST_F(Server, ClosesAConnectionForWhichNoDescriptorIsLeftInsteadOfSpinning) {
    Client client(port);
    rlimit before{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &before), 0);
    const auto lowestFree = static_cast<rlim_t>(tk::Fd(::dup(STDERR_FILENO)).get());
    const rlimit none{lowestFree, before.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    loop.settle();
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &before), 0);
    EXPECT_TRUE(client.isClosed());
    EXPECT_EQ(log(), "accept failed\n");
}

TEST_F(Server, RemovesOnlyTheFirstEntryOfAServiceThatIsRegisteredTwice) {
    server.registerService(&service, "/upnp/event/second", "/upnp/control/second");
    server.removeService(&service);
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(exchange("POST /upnp/control/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    server.removeService(&service);
    server.removeService(&service);  // absent: no error
    EXPECT_EQ(exchange("POST /upnp/control/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
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

TEST(BaseUrl, NamesTheAddressAndThePort) {
    EXPECT_EQ(baseUrl(inet_addr("192.0.2.1")), "http://192.0.2.1:2828");
    EXPECT_EQ(baseUrl(0), "http://0.0.0.0:2828");
}

}  // namespace

}  // namespace gateway
