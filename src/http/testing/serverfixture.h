#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "http/httpserver.h"
#include "tk/fd.h"
#include "tk/testing/testloop.h"

namespace gateway {

// The server knows interfaces only by reference.
class Device {};

inline const std::uint32_t serverAddress = inet_addr("192.0.2.1");

/// The server's only interface has the address 192.0.2.1.
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

/// A service that answers 200 to everything, at once unless subscribers wait.
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

/// A server that listens on the loopback for one service.
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

}  // namespace gateway
