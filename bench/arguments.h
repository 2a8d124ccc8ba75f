#pragma once

#include <netinet/in.h>

#include <string>

namespace bench {

/// The programs of this folder end at the first thing that goes wrong: half a measurement is none. Says what
/// failed, with the text of errno unless that is 0.
[[noreturn]] void fail(const std::string& what);

/// Consecutive numbers, both ends included.
struct Range {
    unsigned first = 0;
    unsigned last = 0;

    unsigned size() const { return last - first + 1; }
};

/// Reads "FIRST-LAST"; ends the program when it is malformed.
Range toRange(const std::string& text);

/// Reads "ADDRESS:PORT"; ends the program when it is malformed.
sockaddr_in toEndpoint(const std::string& text);

/// The bytes of a file; ends the program when it cannot be read.
std::string contentOf(const std::string& path);

}  // namespace bench
