#include "http/httpserver.h"

#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "contract/ports.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/runner.h"
#include "tk/status.h"

namespace gateway {

namespace {

constexpr std::size_t connectionLimit = 512;
constexpr std::size_t sourceLimit = 128;  // connections from one address

// The limits of requests that are kept waiting: from one address, and in all.
constexpr std::size_t waitingSourceLimit = 16;
constexpr std::size_t waitingLimit = 64;

template <typename Key>
void eraseFirst(std::map<Key, HTTPService*>& services, const HTTPService* service) {
    for (auto entry = services.begin(); entry != services.end(); ++entry) {
        if (entry->second != service) continue;
        services.erase(entry);
        return;
    }
}

}  // namespace

std::string baseUrl(std::uint32_t address) {
    return "http://" + ipToString(address) + ":" + toString(unsigned{contract::httpPort});
}

HTTPServer::HTTPServer(HTTPHost& host, std::string directory) : host(host), store{std::move(directory), {}} {}

HTTPServer::~HTTPServer() = default;

void HTTPServer::addFile(const std::string& url, const std::string& fileName) {
    store.files[url] = fileName;
}

void HTTPServer::registerService(HTTPService* service, const std::string& eventURL,
                                 const std::string& controlURL) {
    servicesByEventURL[eventURL] = service;
    servicesByControlURL[controlURL] = service;
}

void HTTPServer::removeService(const HTTPService* service) {
    eraseFirst(servicesByEventURL, service);
    eraseFirst(servicesByControlURL, service);
    std::vector<HTTPConn*> waiting;
    for (const auto& [descriptor, connection] : connections)
        if (connection->waitsFor(*service)) waiting.push_back(connection.get());
    for (HTTPConn* connection : waiting) answered(*connection, HTTPMessage(httpstatus::notFound));
}

void HTTPServer::accept(int listenSocket, std::uint32_t) {
    sockaddr_in peer{};
    socklen_t length = sizeof peer;
    tk::Fd accepted(
        ::accept4(listenSocket, reinterpret_cast<sockaddr*>(&peer), &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!accepted.isOpen()) {
        // The client stays in the queue, and the listener would stay ready.
        if (tk::isShortage(errno)) tk::getRunner()->restSocket(listenSocket);
        return tk::log("accept failed");
    }
    Device* device = host.listenerOwner(listenSocket);
    if (!device) {
        tk::log("oo jeaaa");
        ::exit(1);
    }
    const std::uint32_t source = peer.sin_addr.s_addr;
    if (countFrom(source) >= sourceLimit) return;
    if (connections.size() >= connectionLimit) endOldestOfTheBusiest();
    const int descriptor = accepted.get();
    connections[descriptor] =
        std::make_unique<HTTPConn>(*this, std::move(accepted), *device, source, ++accepts);
}

std::size_t HTTPServer::countFrom(std::uint32_t source) const {
    return static_cast<std::size_t>(
        std::count_if(connections.begin(), connections.end(),
                      [source](const auto& entry) { return entry.second->source() == source; }));
}

/// A few hosts that hold connections open must not keep all others out.
void HTTPServer::endOldestOfTheBusiest() {
    std::map<std::uint32_t, std::size_t> counts;
    for (const auto& [descriptor, connection] : connections) ++counts[connection->source()];
    const auto placeOf = [&counts](const HTTPConn& connection) {
        return std::pair(connectionLimit - counts[connection.source()], connection.number());
    };
    const auto first = std::min_element(connections.begin(), connections.end(),
                                        [&placeOf](const auto& left, const auto& right) {
                                            return placeOf(*left.second) < placeOf(*right.second);
                                        });
    end(first->first);
}

void HTTPServer::connRead(int socket, std::uint32_t) {
    const auto entry = connections.find(socket);
    if (entry == connections.end()) {
        tk::log("fatal error: could not find http conn");
        ::exit(1);
    }
    switch (entry->second->read()) {
        case HTTPConn::Input::more:
            return;
        case HTTPConn::Input::complete:
            return answer(*entry->second);
        case HTTPConn::Input::ended:
            return end(socket);
    }
}

void HTTPServer::answer(HTTPConn& connection) {
    const HTTPMessage request(connection.received());
    HTTPAnswer answer = dispatch(connection, request, methodOf(request.title), pathOf(request.title));
    if (const auto* response = std::get_if<HTTPMessage>(&answer)) return answered(connection, *response);
    connection.keepWaiting(std::get<std::unique_ptr<HTTPWait>>(std::move(answer)));
}

void HTTPServer::answered(HTTPConn& connection, const HTTPMessage& response) {
    const std::string text = response.toString();
    connection.write(text);
    const int descriptor = connection.descriptor();
    if (!unread.mayClose(descriptor, text.size())) unread.keep(connection.giveSocketUp());
    end(descriptor);
}

bool HTTPServer::mayWait(std::uint32_t source) const {
    std::size_t all = 0, own = 0;
    for (const auto& [descriptor, connection] : connections) {
        if (!connection->isWaiting()) continue;
        ++all;
        if (connection->source() == source) ++own;
    }
    return own < waitingSourceLimit && all < waitingLimit;
}

void HTTPServer::end(int socket) {
    const auto entry = connections.find(socket);
    const Device& device = entry->second->device();
    connections.erase(entry);
    host.connectionEnded(device);
}

void HTTPServer::timedOut(int socket) {
    end(socket);
    tk::log("http request timeout");
}

void HTTPServer::dropConnections(const Device& device) {
    std::erase_if(connections, [&device](const auto& entry) { return &entry.second->device() == &device; });
}

bool HTTPServer::hasConnections(const Device& device) const {
    for (const auto& [descriptor, connection] : connections)
        if (&connection->device() == &device) return true;
    return false;
}

}  // namespace gateway
