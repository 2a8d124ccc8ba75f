#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "http/httpconn.h"
#include "http/httpservice.h"
#include "http/httpstore.h"
#include "http/unreadanswers.h"
#include "tk/fd.h"

namespace gateway {

class Device;

/// The address of the HTTP server on one interface, from "http://" to the port, without a trailing slash.
/// Byte order: network.
std::string baseUrl(std::uint32_t address);

/// What the HTTP server asks of the gateway above it.
class HTTPHost {
public:
    virtual ~HTTPHost() = default;
    /// The interface that owns this HTTP listener; null when none does.
    virtual Device* listenerOwner(int listenSocket) = 0;
    /// The address that the interface serves.
    /// Byte order: network.
    virtual std::uint32_t addressOf(const Device& device) const = 0;
    /// The root device description as an XML document, for clients that reach the gateway at `address`.
    /// Byte order: network.
    virtual std::string describe(std::uint32_t address) = 0;
    /// A connection accepted on `device` has ended.
    virtual void connectionEnded(const Device& device) = 0;
};

/// Serves HTTP on the listeners of the internal interfaces: each connection gets one request, one response,
/// then it closes. A request whose answer depends on another program waits; all others are served meanwhile.
///
/// Besides each connection's time limit there are limits on their number. At the limit of one address, a new
/// connection from it is closed as soon as it is accepted. At the limit of all, a new one replaces the oldest
/// connection of the addresses that have the most. An answered connection counts no more; see UnreadAnswers.
class HTTPServer {
public:
    using Connections = std::map<int, std::unique_ptr<HTTPConn>>;

    /// `directory` holds the static files and ends in a slash.
    /// Lifetime: the host outlives the server.
    HTTPServer(HTTPHost& host, std::string directory);
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;
    ~HTTPServer();

    /// Serves the folder's file `fileName` under `url`, in place of any earlier entry.
    void addFile(const std::string& url, const std::string& fileName);

    /// Routes requests for two URLs to a service, in place of any earlier entry for the same URL.
    /// Lifetime: the service is removed before it is destroyed.
    void registerService(HTTPService* service, const std::string& eventURL, const std::string& controlURL);
    /// Removes a service's first entry, in the order of the URLs, from each of the two tables. An unknown
    /// service is no error. Requests that wait for the service are answered as if they came now: 404.
    void removeService(const HTTPService* service);

    /// Called when a listener is ready: accepts one connection. Where descriptors or memory are short, the client
    /// waits in the listener's queue, which is looked at again each 100 ms. The process ends when no interface owns
    /// the listener.
    void accept(int listenSocket, std::uint32_t events);
    /// Called when a connection is ready: reads what came, and answers once the request is complete. The
    /// process ends when the descriptor belongs to no connection.
    void connRead(int socket, std::uint32_t events);
    /// A connection's time is up: closes it without an answer.
    void timedOut(int socket);

    /// True when one more request from this address may be kept waiting.
    /// Byte order: network.
    bool mayWait(std::uint32_t source) const;
    /// Sends the answer to a request that was kept waiting, and ends its connection.
    void answered(HTTPConn& connection, const HTTPMessage& response);

    /// Closes the connections that were accepted on `device`, without an answer or a log line.
    void dropConnections(const Device& device);
    /// True while a connection refers to `device`.
    bool hasConnections(const Device& device) const;
    /// The open connections, by descriptor.
    const Connections& open() const { return connections; }
    const UnreadAnswers& unreadAnswers() const { return unread; }

private:
    std::size_t countFrom(std::uint32_t source) const;
    void endOldestOfTheBusiest();
    void end(int socket);
    void answer(HTTPConn& connection);
    HTTPAnswer dispatch(HTTPConn& connection, const HTTPMessage& request, const std::string& method,
                        const std::string& path);
    HTTPMessage dispatchGet(const Device& device, const HTTPMessage& request, const std::string& path);

    HTTPHost& host;
    HTTPStore store;
    Connections connections;
    UnreadAnswers unread;
    std::map<std::string, HTTPService*> servicesByEventURL;
    std::map<std::string, HTTPService*> servicesByControlURL;
    std::uint64_t accepts = 0;
};

}  // namespace gateway
