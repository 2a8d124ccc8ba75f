#include "links/monitor.h"

#include <linux/rtnetlink.h>

#include <vector>

#include "links/rtnetlink.h"
#include "tk/log.h"

namespace router {

namespace {

constexpr int receiveBytes = 1024 * 1024;
constexpr int datagramsPerTurn = 256;
constexpr int queuedDatagrams = 100000;    // more than the buffer holds
constexpr std::uint32_t retryTicks = 100;  // 1 s

}  // namespace

bool NetworkMonitor::start(std::string& reason) {
    if (const tk::Status opened = events.open(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR);
        !opened.isOk()) {
        reason = "rtnetlink: " + opened.reason();
        return false;
    }
    events.setBuffers(receiveBytes, receiveBytes);
    if (!readAll(reason)) return false;
    watch.start<NetworkMonitor, &NetworkMonitor::ready>(events.descriptor(), *this, tk::readable);
    return true;
}

bool NetworkMonitor::readAll(std::string& reason) {
    std::vector<Link> links;
    std::vector<LinkAddress> held;
    if (!kernel.readLinks(links, reason) || !kernel.readAddresses(held, reason)) return false;
    zones.applyAll(links, held);
    interfaces.applyAll(links);
    addresses.applyAll(held);
    return true;
}

void NetworkMonitor::readAgain() {
    std::string reason;
    if (readAll(reason)) return;
    tk::log("interfaces cannot be read: ", reason);
    retry.arm(retryTicks);
}

void NetworkMonitor::ready(int, std::uint32_t) {
    for (int i = 0; i < datagramsPerTurn; ++i) {
        const auto result = events.receive(0, [this](const nlmsghdr& message) { take(message); });
        if (result == netlink::Socket::Received::nothing) return;
        if (result == netlink::Socket::Received::datagram) continue;
        discardQueue();
        return readAgain();
    }
}

void NetworkMonitor::discardQueue() {
    // What waits is older than what was lost: applied behind the reading of everything, it would undo it for
    // good.
    for (int i = 0; i < queuedDatagrams; ++i)
        if (events.receive(0, [](const nlmsghdr&) {}) == netlink::Socket::Received::nothing) return;
}

void NetworkMonitor::take(const nlmsghdr& message) {
    switch (message.nlmsg_type) {
        case RTM_NEWLINK:
            if (const auto link = parseLink(message)) {
                zones.apply(*link);
                interfaces.apply(*link);
            }
            return;
        case RTM_DELLINK:
            if (const auto link = parseLink(message)) {
                zones.removeLink(link->index);
                interfaces.remove(link->index);
                addresses.forget(link->index);
            }
            return;
        case RTM_NEWADDR:
            if (const auto address = parseAddress(message)) {
                zones.apply(*address);
                addresses.apply(*address);
            }
            return;
        case RTM_DELADDR:
            if (const auto address = parseAddress(message)) {
                zones.remove(*address);
                addresses.remove(*address);
            }
            return;
        default:
            return;
    }
}

}  // namespace router
