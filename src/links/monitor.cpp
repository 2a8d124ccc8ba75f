#include "links/monitor.h"

#include <linux/rtnetlink.h>

#include <vector>

#include "tk/log.h"

namespace links {

namespace {

constexpr std::uint32_t retryTicks = 100;  // 1 s

}  // namespace

tk::Status Monitor::start() {
    if (tk::Status opened = notifications.open(NETLINK_ROUTE, RTMGRP_LINK | RTMGRP_IPV4_IFADDR);
        !opened.isOk())
        return opened.prefixed("rtnetlink: ");
    if (tk::Status read = readAll(); !read.isOk()) return read;
    if (zones.dependsOnRoutes())
        if (tk::Status read = followRoutes(); !read.isOk()) return read;
    notifications.start();
    return {};
}

tk::Status Monitor::followRoutes() {
    if (routes) return {};
    if (tk::Status joined = notifications.join(PublicRoutes::groups); !joined.isOk())
        return joined.prefixed("rtnetlink: ");
    tk::Status read = routes.emplace(kernel, zones).start();
    if (!read.isOk()) routes.reset();
    return read;
}

tk::Status Monitor::readAll() {
    const tk::Result<std::vector<Link>> links = kernel.readLinks();
    if (!links.isOk()) return links.status();
    const tk::Result<std::vector<LinkAddress>> held = kernel.readAddresses();
    if (!held.isOk()) return held.status();
    zones.applyAll(*links, *held);
    interfaces.applyAll(*links);
    addresses.applyAll(*held);
    return {};
}

void Monitor::readAgain() {
    const tk::Status read = readAll();
    if (read.isOk()) return retry.withdraw();
    tk::log("interfaces cannot be read: ", read.reason());
    retry.call(retryTicks);
}

void Monitor::lost() {
    if (routes) routes->readAgain();
    readAgain();
}

void Monitor::heard(const nlmsghdr& message, bool isStale) {
    // Even when stale: a notification of a route does not undo what was read later.
    if (routes) routes->heard(message);
    if (isStale) return;
    switch (message.nlmsg_type) {
        case RTM_NEWLINK:
        case RTM_DELLINK:
            return linkHeard(message, message.nlmsg_type == RTM_NEWLINK);
        case RTM_NEWADDR:
        case RTM_DELADDR:
            return addressHeard(message, message.nlmsg_type == RTM_NEWADDR);
        default:
            return;
    }
}

void Monitor::linkHeard(const nlmsghdr& message, bool isThere) {
    const std::optional<Link> link = parseLink(message);
    if (!link) return;
    if (isThere) {
        zones.apply(*link);
        return interfaces.apply(*link);
    }
    zones.removeLink(link->index);
    interfaces.remove(link->index);
    addresses.forget(link->index);
}

void Monitor::addressHeard(const nlmsghdr& message, bool isThere) {
    const std::optional<LinkAddress> address = parseAddress(message);
    if (!address) return;
    if (isThere) {
        zones.apply(*address);
        return addresses.apply(*address);
    }
    zones.remove(*address);
    addresses.remove(*address);
}

}  // namespace links
