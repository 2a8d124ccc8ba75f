#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "http/httpprogress.h"
#include "tk/fd.h"
#include "tk/timer.h"

class Device;
class HTTPServer;

/// One accepted connection: its socket, the interface that it came in on, and what it has sent so far.
/// Closes itself, without an answer, 10 s after it was accepted, whatever has arrived until then.
class HTTPConn {
public:
    /// Takes an accepted, non-blocking socket over, and watches it. `source` is the peer's address in network
    /// order. `number` counts the accepted connections. Lifetime: the server owns the connection; the device
    /// lives until the connection has ended.
    HTTPConn(HTTPServer& server, tk::Fd accepted, Device& device, std::uint32_t source, std::uint64_t number);

    /// What a read brought.
    enum class Input : std::uint8_t { more, complete, ended };

    /// Reads once. Bytes that can never become a complete message are not kept.
    [[nodiscard]] Input read();
    /// Sends the response in one piece. Errors: logged; the client has not got all of it then.
    void write(const std::string& response);

    /// Everything received, the complete message after Input::complete.
    const std::string& received() const { return buffer; }
    Device& device() const { return owner; }
    std::uint32_t source() const { return peer; }
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
    bool isHopeless = false;  // what came can never become complete; the time limit ends the connection
    tk::Watch watch;
    tk::Timer<HTTPConn, &HTTPConn::timeout> requestTimer{*this};
};
