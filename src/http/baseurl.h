#pragma once

#include <cstdint>
#include <string>

/// The address of the HTTP server on one interface, "http://" to the port, without a slash behind it.
/// Byte order: network.
std::string baseUrl(std::uint32_t address);
