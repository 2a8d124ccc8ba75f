#pragma once

#include <cstdint>
#include <string_view>

namespace tk {

/// The CRC-32 of ISO 3309, as in zip files and Ethernet frames.
std::uint32_t crc32(std::string_view bytes);

}  // namespace tk
