#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

/// The kernel's end of all netlink sockets. The calls on them lead here: no socket is ever opened.
namespace fuzz {

struct Datagram {
    std::uint16_t kind = 0;  // 0: an ordinary one
    std::string_view bytes;
};

struct Kernel {
    std::string_view input;
    std::deque<Datagram> waiting;
    std::size_t messages = 0;        // that were whole in what waited at first
    std::vector<std::string> heard;  // what was sent to it
};

Kernel& kernel();
/// Makes a new kernel, with the datagrams of an input: each has its length before it, in two bytes, or one of the numbers
/// of kernel.cpp in place of the length.
/// Lifetime: the input is there as long as the kernel is used.
void tell(std::string_view input);
/// The messages of a datagram, counted by their lengths alone.
std::size_t messagesIn(std::string_view bytes);

}  // namespace fuzz
