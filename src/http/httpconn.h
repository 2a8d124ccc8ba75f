#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "http/httpprogress.h"
#include "http/httpservice.h"
#include "tk/fd.h"
#include "tk/timer.h"

namespace gateway {

class Device;
class HTTPServer;

/// One accepted connection: its socket, the interface that it came in on, and what it has sent so far. It
/// closes itself without an answer 10 s after it was accepted, unless its request is complete and waits for
/// an answer.
class HTTPConn final : public HTTPClient {
public:
    /// Takes over an accepted, non-blocking socket and watches it. `source` is the peer's address. `number`
    /// counts the accepted connections.
    /// Byte order: network.
    /// Lifetime: the server owns the connection; the device lives until the connection has ended.
    HTTPConn(HTTPServer& server, tk::Fd accepted, Device& device, std::uint32_t source, std::uint64_t number);
    ~HTTPConn() override;

    /// The outcome of a read.
    enum class Input : std::uint8_t { more, complete, ended };

    /// Reads once. Bytes that can never become a complete message are not kept.
    [[nodiscard]] Input read();
    /// Sends the response whole.
    /// Errors: logged; the client did not get all of it.
    void write(const std::string& response);
    /// Stops to watch the socket, and gives it up to the caller.
    [[nodiscard]] tk::Fd giveSocketUp();
    /// Keeps a complete request until it is answered, and ignores what the client does meanwhile.
    void keepWaiting(std::unique_ptr<HTTPWait> with);
    /// True while the request is kept waiting.
    bool isWaiting() const { return wait != nullptr; }
    /// True while it waits for this service.
    bool waitsFor(const HTTPService& service) const { return wait && wait->isFor(service); }

    /// Everything received so far; after Input::complete, the whole message.
    const std::string& received() const { return buffer; }
    Device& device() const { return owner; }
    std::uint32_t source() const override { return peer; }
    bool mayWait() const override;
    void answer(const HTTPMessage& response) override;
    std::uint64_t number() const { return serial; }
    int descriptor() const { return socket.get(); }

private:
    void giveUp();
    void timeout();

    HTTPServer& server;
    tk::Fd socket;
    Device& owner;
    std::string buffer;
    std::uint32_t peer;
    std::uint64_t serial;
    HTTPProgress progress;
    // What came can never become complete; the time limit ends the connection.
    bool isHopeless = false;
    tk::Watch watch;
    tk::Timer<HTTPConn, &HTTPConn::timeout> requestTimer{*this};
    std::unique_ptr<HTTPWait> wait;  // null while the request is not complete
};

}  // namespace gateway
