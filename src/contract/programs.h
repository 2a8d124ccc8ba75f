#pragma once

#include <cstdint>

#include "tk/message.h"
#include "tk/names.h"

/// Who is on the bus, and where.
namespace contract {

namespace program {
constexpr std::uint32_t resolver = 14;
// {20, 0} interfaces, {20, 1} addresses, {20, 5} destination NAT rules.
constexpr std::uint32_t network = 20;
constexpr std::uint32_t identity = 65;
constexpr std::uint32_t gateway = 80;
}  // namespace program

namespace path {
inline tk::Path hub() {
    return {tk::program::hub};
}
inline tk::Path interfaces() {
    return {program::network, 0};
}
inline tk::Path addresses() {
    return {program::network, 1};
}
inline tk::Path nat() {
    return {program::network, 5};
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
}  // namespace path

/// Where the hub listens.
constexpr const char* busPath = "/run/tk/bus";

}  // namespace contract
