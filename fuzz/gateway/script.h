#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "fuzz/gateway/network.h"
#include "fuzz/gateway/world.h"

namespace fuzz {

/// What is left of an input. At its end all numbers are 0 and all texts empty.
/// Lifetime: the input outlives the script.
class Script {
public:
    explicit Script(std::string_view input) : rest(input) {}

    bool isOver() const { return rest.empty(); }
    /// The next byte, whatever it is; only while the script is not over.
    char letter();
    /// A number from 0 to below the limit, of one byte: a digit or a letter counts from 0 to 35, and any other for
    /// itself, each modulo the limit.
    unsigned number(unsigned limit);
    /// All bytes up to a semicolon.
    std::string text();

    /// The address of one of a few hosts of the LAN.
    /// Byte order: network.
    std::uint32_t host();
    std::uint32_t interface() { return number(World::interfaceLimit); }
    /// An address that the router may have, as a dotted quad.
    const char* address();
    /// The value of an action's argument; null for one that is left out.
    /// Lifetime: until the next argument.
    const std::string* argument();
    /// One of these connections, of which 0 is the latest; null when there is none.
    Link* choose(const std::vector<Link*>& links);

private:
    std::string_view rest;
    std::string value;  // of the last argument
};

}  // namespace fuzz
