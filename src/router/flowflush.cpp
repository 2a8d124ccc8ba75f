#include "router/flowflush.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

#include "tk/log.h"

namespace router {

namespace {

constexpr std::uint32_t delayTicks = 2;   // 20 ms: long enough for a series of changes to share one pass
constexpr std::uint32_t retryTicks = 50;  // 500 ms
constexpr int attemptLimit = 5;
constexpr int datagramsPerTurn = 32;  // of some hundred flows each
constexpr std::size_t removalsPerTurn = 512;
constexpr int bufferBytes = 1024 * 1024;
// The kernel walks its whole table, however little it has to give: some ten milliseconds on a large router.
// So passes keep a distance, and together take a small share of the time only.
constexpr std::uint32_t distanceFactor = 10;

}  // namespace

bool FlowFlush::open(std::string& reason) {
    if (!socket.open(NETLINK_NETFILTER)) {
        reason = "conntrack: " + tk::errorText();
        return false;
    }
    socket.setBuffers(bufferBytes, bufferBytes);
    watch.start<FlowFlush, &FlowFlush::ready>(socket.descriptor(), *this, tk::readable);
    return true;
}

bool FlowFlush::commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                       std::string& reason) {
    if (!rules.commit(removed, added, reason)) return false;
    const bool isArmed = !noted.empty();
    noted.note(removed, added);
    if (!isArmed && !isBusy()) delay.arm(std::max(delayTicks, restTicks()));
    return true;
}

/// Begins a pass over the table for all that was noted.
void FlowFlush::begin() {
    if (sought.empty()) sought = std::exchange(noted, {});
    if (sought.empty()) return;
    std::array<char, flowRequestBytes> buffer;
    nlmsghdr* request = putFlowDump(buffer.data(), canSelect ? sought.selection() : FlowSelection{});
    request->nlmsg_seq = dumpSequence = socket.nextSequence();
    const auto start = std::chrono::steady_clock::now();
    const bool isSent = socket.send(request, request->nlmsg_len);
    restEnd = std::chrono::steady_clock::now() + (std::chrono::steady_clock::now() - start) * distanceFactor;
    if (!isSent) repeat(tk::errorText());
}

/// What is left of the distance to the last pass. Units: ticks of 10 ms.
std::uint32_t FlowFlush::restTicks() const {
    const auto rest =
        std::chrono::duration_cast<std::chrono::milliseconds>(restEnd - std::chrono::steady_clock::now());
    return rest.count() <= 0 ? 0 : static_cast<std::uint32_t>(rest.count()) / tk::tickMilliseconds + 1;
}

void FlowFlush::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = socket.receive(0, [this](const nlmsghdr& message) { take(message); });
        if (result == NetlinkSocket::Received::nothing) return;
        if (result == NetlinkSocket::Received::datagram) continue;
        if (dumpSequence != 0) repeat(tk::errorText());
        return;
    }
}

void FlowFlush::take(const nlmsghdr& message) {
    if (message.nlmsg_type == NLMSG_ERROR && message.nlmsg_seq != dumpSequence) {
        // Of a removal: the flow may have ended by itself.
        const NetlinkResult result = netlinkResultOf(message);
        if (result.ok() || result.error == ENOENT || std::exchange(reported, true)) return;
        return tk::log("nat: flows cannot be removed: ", result.text);
    }
    if (dumpSequence == 0 || message.nlmsg_seq != dumpSequence) return;
    if (message.nlmsg_type == NLMSG_ERROR) {
        const NetlinkResult result = netlinkResultOf(message);
        canSelect = false;  // should that be what the kernel does not like
        return repeat(result.text);
    }
    if (message.nlmsg_type == NLMSG_DONE) return finish();
    auto flow = parseFlow(message);
    if (flow && sought.contains(*flow)) found.push_back(std::move(*flow));
}

void FlowFlush::repeat(const std::string& why) {
    dumpSequence = 0;
    found.clear();
    if (++attempts < attemptLimit) return delay.arm(retryTicks);
    tk::log("nat: the table of flows cannot be read: ", why);
    finish();
}

void FlowFlush::finish() {
    dumpSequence = 0;
    attempts = 0;
    sought = {};
    removeSome();
}

void FlowFlush::removeSome() {
    const std::size_t count = std::min(found.size(), removalsPerTurn);
    std::vector<char> requests;
    for (std::size_t i = found.size() - count; i < found.size(); ++i)
        appendFlowRemoval(requests, found[i], socket.nextSequence());
    found.resize(found.size() - count);
    if (!requests.empty() && !socket.send(requests.data(), requests.size()) && !std::exchange(reported, true))
        tk::log("nat: flows cannot be removed: ", tk::errorText());
    if (!found.empty()) return removal.arm(0);
    if (!noted.empty()) delay.arm(std::max(delayTicks, restTicks()));
}

}  // namespace router
