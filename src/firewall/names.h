#pragma once

#include <cstdint>

/// The names in the router's tables.
namespace router::nft {

// The families, as the kernel numbers them.
constexpr std::uint8_t ip4 = 2;
constexpr std::uint8_t ip6 = 10;

constexpr const char* table = "tk";
constexpr const char* map = "dstnat";
constexpr const char* live = "live";
constexpr const char* hairpin = "hairpin";
constexpr const char* prerouting = "prerouting";
constexpr const char* postrouting = "postrouting";
constexpr const char* forward = "forward";
constexpr const char* ended = "ended";
constexpr const char* missed = "missed";

// Of the guard.
constexpr const char* guarded = "guarded";
constexpr const char* inside = "inside";
constexpr const char* daemon = "daemon";
constexpr const char* searches = "searches";
constexpr const char* requests = "requests";
constexpr const char* connections = "connections";
constexpr const char* output = "output";
constexpr const char* input = "input";

}  // namespace router::nft
