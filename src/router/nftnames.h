#pragma once

/// The names in the router's table.
namespace router::nft {

constexpr const char* table = "tk";
constexpr const char* map = "dstnat";
constexpr const char* live = "live";
constexpr const char* hairpin = "hairpin";
constexpr const char* uplinks = "uplinks";
constexpr const char* prerouting = "prerouting";
constexpr const char* postrouting = "postrouting";
constexpr const char* forward = "forward";
constexpr const char* ended = "ended";
constexpr const char* missed = "missed";

// Of the guard.
constexpr const char* guarded = "guarded";
constexpr const char* searches = "searches";
constexpr const char* requests = "requests";
constexpr const char* connections = "connections";
constexpr const char* output = "output";
constexpr const char* input = "input";

}  // namespace router::nft
