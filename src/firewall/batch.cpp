#include "firewall/batch.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>

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

void NftBatch::add(std::uint16_t type, std::uint16_t flags, const Fill& fill, std::uint8_t family) {
    lastSequence = socket.nextSequence();
    lastOffset = bytes.size();
    nlmsghdr* message = nftnl_nlmsg_build_hdr(scratch.data(), type, family, flags, lastSequence);
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
    int lossError = 0;
    bool isReading = true;
    // Behind a loss is read what still waits: an error may be among it, and room is needed for what comes.
    while (isReading && !finished) switch (socket.receive(lossError == 0 ? answerMilliseconds : 0, take)) {
            case NetlinkSocket::Received::datagram:
                break;
            case NetlinkSocket::Received::lost:
                lossError = ENOBUFS;
                break;
            case NetlinkSocket::Received::nothing:
                if (lossError == 0) lossError = ETIMEDOUT;
                isReading = false;
                break;
            case NetlinkSocket::Received::failed:
                lossError = errno;
                isReading = false;
                break;
        }
    // One error is enough to know that nothing was done; success is known only when no error can be missing.
    if (lossError == 0 || !first.ok()) return first;
    first = netlinkFailure(lossError);
    first.unanswered = true;
    return first;
}

}  // namespace router
