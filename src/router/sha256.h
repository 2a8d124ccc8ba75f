#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace router {

using Sha256Digest = std::array<std::uint8_t, 32>;

/// The SHA-256 digest of a text (FIPS 180-4).
[[nodiscard]] Sha256Digest sha256(std::string_view text);

/// The keyed digest HMAC-SHA-256 (RFC 2104).
[[nodiscard]] Sha256Digest hmacSha256(std::string_view key, std::string_view text);

/// The first `bytes` bytes of a digest as lower-case hexadecimal digits.
[[nodiscard]] std::string hexDigits(const Sha256Digest& digest, std::size_t bytes = 32);

}  // namespace router
