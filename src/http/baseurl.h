#pragma once

#include <cstdint>
#include <string>

/// The TCP port of the HTTP listener of every internal interface.
constexpr int httpPort = 2828;

/// The address of the HTTP server on one interface, "http://" to the port, without a slash behind it.
/// Byte order: network.
std::string baseUrl(std::uint32_t address);
