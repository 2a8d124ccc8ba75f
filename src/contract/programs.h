#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/names.h"

/// Who is on the bus, and where; and where the programs have their files.
namespace contract {

namespace program {
constexpr std::uint32_t resolver = 14;
constexpr std::uint32_t network = 20;
constexpr std::uint32_t identity = 65;
constexpr std::uint32_t gateway = 80;
}  // namespace program

// The handlers; those that are not named are number 0.
namespace handler {
// Of program::network.
constexpr std::uint32_t interfaces = 0;
constexpr std::uint32_t addresses = 1;
constexpr std::uint32_t nat = 5;  // the destination NAT rules
// Of program::gateway.
constexpr std::uint32_t mappings = 1;
}  // namespace handler

namespace path {
inline tk::Path hub() {
    return {tk::program::hub};
}
inline tk::Path interfaces() {
    return {program::network, handler::interfaces};
}
inline tk::Path addresses() {
    return {program::network, handler::addresses};
}
inline tk::Path nat() {
    return {program::network, handler::nat};
}
inline tk::Path history() {
    return {tk::program::history};
}
inline tk::Path identity() {
    return {program::identity};
}
inline tk::Path gateway() {
    return {program::gateway, 0};
}
inline tk::Path mappings() {
    return {program::gateway, handler::mappings};
}
}  // namespace path

/// Where the hub listens.
constexpr const char* busPath = "/run/tk/bus";

/// What routerd reads unless it is told otherwise.
constexpr const char* usualConfiguration = "/tesk/etc/router.toml";

// Where the programs store. They are apart: what upnpd may write to must never become a rule or an interface's
// id.
constexpr const char* networkStores = "/tesk/router";
constexpr const char* gatewayStores = "/tesk/store";

}  // namespace contract
