#include "firewall/batch.h"

#include <libmnl/libmnl.h>
#include <libnftnl/common.h>

#include "netlink/request.h"

namespace firewall {

namespace {

constexpr std::size_t usualSize = 1024;  // of a transaction, in bytes: that of one rule

// Each message is written here before it is appended: to allocate so much for each transaction makes the
// allocator tidy up each time.
alignas(nlmsghdr) char scratch[Batch::maximumMessage];

}  // namespace

Batch::Batch(netlink::Socket& socket)
    : socket(socket), firstSequence(socket.nextSequence()), lastSequence(firstSequence) {
    bytes.reserve(usualSize);
    append(*nftnl_batch_begin(scratch, firstSequence));
}

void Batch::append(const nlmsghdr& message) {
    const auto* start = reinterpret_cast<const char*>(&message);
    bytes.insert(bytes.end(), start, start + MNL_ALIGN(message.nlmsg_len));
}

void Batch::add(std::uint16_t type, std::uint16_t flags, const Fill& fill, std::uint8_t family) {
    lastSequence = socket.nextSequence();
    lastOffset = bytes.size();
    nlmsghdr* message = nftnl_nlmsg_build_hdr(scratch, type, family, flags, lastSequence);
    fill(*message);
    append(*message);
}

tk::Status Batch::commit() {
    if (lastOffset == 0) return {};  // nothing to do
    // The acknowledgement of the last message is enough: errors come in any case, and come before it.
    reinterpret_cast<nlmsghdr*>(bytes.data() + lastOffset)->nlmsg_flags |= NLM_F_ACK;
    append(*nftnl_batch_end(scratch, socket.nextSequence()));
    return netlink::transact(socket, bytes, firstSequence, lastSequence);
}

}  // namespace firewall
