#pragma once

#include <netinet/in.h>

#include <string>

#include "tk/fd.h"

/// Sockets for measurements. All of these end the program when they fail.
namespace bench {

/// A listener on a port of every address; `backlog` as in listen().
tk::Fd listenOn(std::uint16_t port, int backlog);

/// A UDP socket, bound to a port of every address; to any port if it is 0.
tk::Fd datagramsOn(std::uint16_t port);

/// Connects, and waits until it is done.
tk::Fd connectTo(const sockaddr_in& to);

/// Lets a blocking accept or read on the socket fail after this time.
void limitWaiting(const tk::Fd& socket, int milliseconds);

/// Writes all of it.
void writeAll(const tk::Fd& socket, const std::string& bytes);

/// Reads to the end of the stream.
std::string readToEnd(const tk::Fd& socket);

}  // namespace bench
