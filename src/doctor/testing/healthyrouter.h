#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <optional>
#include <string>

#include "doctor/facts.h"

namespace doctor {

/// Units: network order.
inline std::uint32_t address(const char* text) {
    return ::inet_addr(text);
}

/// A cabled network that is up.
inline machine::Link link(const std::string& name, std::uint32_t index) {
    machine::Link made;
    made.name = name;
    made.index = index;
    made.isUp = made.hasCarrier = true;
    made.type = "ether";
    return made;
}

/// An address in a network of 24 bits.
inline machine::Address addressOf(const std::string& interface, const char* text) {
    return {interface, address(text), machine::networkOf(address(text), 24), std::nullopt, "global"};
}

inline machine::Route defaultRoute(const std::string& device, const char* gateway) {
    machine::Route route;
    route.type = "unicast";
    route.table = "main";
    route.device = device;
    route.gateway = address(gateway);
    return route;
}

inline constexpr std::uint32_t daemonUser = 64002;

/// A router that is as it should be.
inline Facts healthy() {
    Facts facts;
    facts.bus.routerAnswers = facts.bus.daemonAnswers = true;
    facts.bus.settings = {true, false, true};
    facts.bus.interfaces = {{1, "lan0", {contract::Side::inside, "named"}},
                            {2, "wan0", {contract::Side::outside, "has the route"}}};
    facts.bus.roles = {{1, 1, "lan0", contract::Role::internal, false},
                       {2, 2, "wan0", contract::Role::external, false}};
    facts.bus.programs = {{20, 10, 64001, "1.0"}, {80, 11, daemonUser, "1.0"}, {14, 12, 64003, "1.0"}};
    facts.bus.ownVersion = "1.0";
    MachineFacts& machine = facts.machine;
    machine.links.links = {link("lan0", 2), link("wan0", 3), link("lanp1", 4)};
    machine.links.addresses = {addressOf("lan0", "192.0.2.1"), addressOf("wan0", "198.51.100.1")};
    machine.links.routes = {defaultRoute("wan0", "198.51.100.2")};
    machine.settings = {{"lan0", {true, 0}}, {"wan0", {true, 1}}};
    machine.answers = {{"wan0", "wan0"}};
    machine.iptablesTool = "iptables";
    machine.guardedUsers = {daemonUser};
    machine.sockets = {{false, "lan0", "0.0.0.0", "upnpd", 11}, {true, "lan0", "0.0.0.0", "upnpd", 11}};
    machine.bridges = {{"lan0", true, true, false}};
    machine.stores = {{"/tesk/router", 20, true, 64001, true, false, 1U << 30, {}, 1000},
                      {"/tesk/store", 80, true, daemonUser, true, false, 1U << 30, {}, 1000}};
    machine.hasSystemd = true;
    machine.programFolder = "/usr/sbin";
    machine.config.path = "/tesk/etc/router.toml";
    machine.now = machine.builtAfter = 2000;
    return facts;
}

}  // namespace doctor
