#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <vector>

#include "netlink/socket.h"

namespace firewall {

namespace nft {
// The families, as the kernel numbers them.
constexpr std::uint8_t ip4 = 2;
constexpr std::uint8_t ip6 = 10;
}  // namespace nft

/// One nf_tables transaction: messages that the kernel commits together or not at all.
class Batch {
public:
    /// Writes the attributes of a message.
    using Fill = std::function<void(nlmsghdr&)>;

    /// Lifetime: the socket outlives the batch.
    explicit Batch(netlink::Socket& socket);

    /// Appends a message for a family. `fill` writes its attributes, at most maximumMessage bytes.
    void add(std::uint16_t type, std::uint16_t flags, const Fill& fill, std::uint8_t family = nft::ip4);
    /// Sends the transaction, and waits for the kernel to commit or refuse it.
    /// Errors: the kernel's first one; netlink::unanswered when no answer came, and the kernel may have
    /// committed.
    tk::Status commit();

    /// The size of the largest message.
    /// Units: bytes.
    static constexpr std::size_t maximumMessage = std::size_t{16} * 1024;

private:
    void append(const nlmsghdr& message);

    netlink::Socket& socket;
    std::uint32_t firstSequence;
    std::uint32_t lastSequence;  // of the last message before the end marker
    std::size_t lastOffset = 0;  // where that message starts
    std::vector<char> bytes;
};

}  // namespace firewall
