#include "tk/checksum.h"

namespace tk {

std::uint32_t crc32(std::string_view bytes) {
    constexpr std::uint32_t polynomial = 0xEDB88320;
    std::uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<unsigned char>(byte);
        for (int bit = 0; bit < 8; ++bit) crc = crc & 1 ? crc >> 1 ^ polynomial : crc >> 1;
    }
    return ~crc;
}

}  // namespace tk
