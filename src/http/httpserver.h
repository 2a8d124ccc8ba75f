#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "http/httpconn.h"
#include "http/httpservice.h"
#include "http/httpstore.h"
#include "tk/fd.h"

namespace gateway {

class Device;

/// The address of the HTTP server on one interface, from "http://" to the port, without a slash at its end.
/// Byte order: network.
std::string baseUrl(std::uint32_t address);

/// What the HTTP server asks of the gateway above it.
class HTTPHost {
public:
    virtual ~HTTPHost() = default;
    /// The interface whose HTTP listener this socket is; null when none owns it.
    virtual Device* listenerOwner(int listenSocket) = 0;
    /// The address that the interface serves.
    /// Byte order: network.
    virtual std::uint32_t addressOf(const Device& device) const = 0;
    /// The root device description as an XML document, for clients that reach the gateway at `address`.
    virtual std::string describe(std::uint32_t address) = 0;
    /// A connection that was accepted on `device` ended.
    virtual void connectionEnded(const Device& device) = 0;
};

/// Serves HTTP on the listeners of the internal interfaces: one request a connection, one response, then the
/// end. A request whose answer takes somebody else's waits alone, and all others are served meanwhile.
///
/// Beside the time limit of each connection there are limits on their number. One too many from the same
/// address is closed as soon as it is accepted; one too many in all takes the place of the oldest of the
/// address that has most.
class HTTPServer {
public:
    /// `directory` holds the static files, and ends in a slash.
    /// Lifetime: the host outlives the server.
    HTTPServer(HTTPHost& host, std::string directory);
    HTTPServer(const HTTPServer&) = delete;
    HTTPServer& operator=(const HTTPServer&) = delete;
    ~HTTPServer();

    /// Serves the file `fileName` of the folder under `url`; an earlier entry is replaced.
    void addFile(const std::string& url, const std::string& fileName);

    /// Routes requests to a service by its two URLs; an earlier entry under the same URL is replaced.
    /// Lifetime: the service is removed before it is destroyed.
    void registerService(HTTPService* service, const std::string& eventURL, const std::string& controlURL);
    /// Forgets the first entry, in the order of the URLs, of a service in each of the two tables; one that is
    /// in neither is no error. Requests that wait for it are answered as if they came now: 404.
    void removeService(const HTTPService* service);

    /// Callback of every listener: takes one connection. The process ends when no interface owns the
    /// listener.
    void accept(int listenSocket, std::uint32_t events);
    /// Callback of every connection: reads what came, and answers once the request is complete. The process
    /// ends when the descriptor belongs to no connection.
    void connRead(int socket, std::uint32_t events);
    /// A connection's time is up: it is closed without an answer.
    void timedOut(int socket);

    /// True when one more request from this address may be kept waiting.
    /// Byte order: network.
    bool mayWait(std::uint32_t source) const;
    /// The answer of a request that was kept waiting: it goes out, and the connection ends.
    void answered(HTTPConn& connection, const HTTPMessage& response);

    /// Closes the connections that were accepted on `device`, without an answer and a log line.
    void dropConnections(const Device& device);
    /// True while a connection refers to `device`.
    bool hasConnections(const Device& device) const;

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
    std::map<int, std::unique_ptr<HTTPConn>> connections;  // by descriptor
    std::map<std::string, HTTPService*> servicesByEventURL;
    std::map<std::string, HTTPService*> servicesByControlURL;
    std::uint64_t accepts = 0;
    tk::Fd reserve;  // given up for a moment when no descriptor is left, to take and close a connection
};

}  // namespace gateway
