#include "router/nftbatch.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>

namespace router {

namespace {

constexpr int answerMilliseconds = 10000;  // a large transaction takes the kernel some time

}  // namespace

NftBatch::NftBatch(NetlinkSocket& socket)
    : socket(socket),
      firstSequence(socket.nextSequence()),
      lastSequence(firstSequence),
      scratch(maximumMessage) {
    append(*nftnl_batch_begin(scratch.data(), firstSequence));
}

void NftBatch::append(const nlmsghdr& message) {
    const auto* start = reinterpret_cast<const char*>(&message);
    bytes.insert(bytes.end(), start, start + MNL_ALIGN(message.nlmsg_len));
}

void NftBatch::add(std::uint16_t type, std::uint16_t flags, const Fill& fill) {
    lastSequence = socket.nextSequence();
    lastOffset = bytes.size();
    nlmsghdr* message = nftnl_nlmsg_build_hdr(scratch.data(), type, NFPROTO_IPV4, flags, lastSequence);
    fill(*message);
    append(*message);
}

NetlinkResult NftBatch::commit() {
    if (lastOffset == 0) return {};  // nothing to do
    // One acknowledgement is enough, that of the last message: errors come in any case, and before it.
    reinterpret_cast<nlmsghdr*>(bytes.data() + lastOffset)->nlmsg_flags |= NLM_F_ACK;
    append(*nftnl_batch_end(scratch.data(), socket.nextSequence()));
    if (!socket.send(bytes.data(), bytes.size())) return netlinkFailure(errno);
    NetlinkResult first;
    bool finished = false;
    const auto take = [&](const nlmsghdr& message) {
        const bool isOurs = message.nlmsg_seq >= firstSequence && message.nlmsg_seq <= lastSequence;
        if (message.nlmsg_type != NLMSG_ERROR || !isOurs) return;
        const NetlinkResult result = netlinkResultOf(message);
        if (first.ok()) first = result;
        // An error of the transaction as a whole carries the number of its first message.
        finished = finished || message.nlmsg_seq == lastSequence || message.nlmsg_seq == firstSequence;
    };
    while (!finished) switch (socket.receive(answerMilliseconds, take)) {
            case NetlinkSocket::Received::datagram:
                break;
            case NetlinkSocket::Received::nothing:
                return netlinkFailure(ETIMEDOUT);
            case NetlinkSocket::Received::lost:
                return first.ok() ? netlinkFailure(ENOBUFS) : first;
            case NetlinkSocket::Received::failed:
                return netlinkFailure(errno);
        }
    return first;
}

}  // namespace router
