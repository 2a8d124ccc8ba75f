#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace gateway {

/// Decimal text of a number.
std::string toString(std::int32_t value);
std::string toString(std::uint32_t value);

/// Eight lower-case hexadecimal digits, with leading zeros.
std::string toHexString(std::uint32_t value);

/// Dotted quad of an IPv4 address.
/// Byte order: network.
std::string ipToString(std::uint32_t address);

/// The number at the front of `text`, in decimal: white space and a sign before it are taken, what follows it
/// is ignored, and a text without a number gives 0. The numbers are those of a machine of 32 bits: a
/// magnitude beyond 4294967295 gives 4294967295, and a minus sign negates modulo 2^32, so that -1 is
/// 4294967295.
std::uint32_t toUnsigned(const std::string& text);

/// The same for a signed number, which is kept between -2147483648 and 2147483647.
std::int32_t toInt(const std::string& text);

/// True when nothing follows the number at the front of `text`; that number, as toUnsigned() gives it, is in
/// `value`. An empty text is 0.
/// Errors: false also for a text that is not empty and holds no number.
[[nodiscard]] bool isUnsigned(const std::string& text, std::uint32_t& value);

/// The address that a dotted text means. As in inet_addr, fewer than four numbers, octal and hexadecimal
/// ones, and words after a blank are understood.
/// Byte order: network.
/// Errors: all ones (255.255.255.255) for an empty or malformed text.
std::uint32_t toAddress(const std::string& text);

/// How long the router has been running, in decimal.
/// Units: seconds.
std::string uptimeString();

/// The part of a qualified name after its last ':'; all of it where there is none.
/// Lifetime: as long as the name itself.
std::string_view stripPrefix(std::string_view name);

/// The part of `text` that begins at `start` and has at most `length` bytes; empty when `start` lies past its
/// end.
/// Lifetime: as long as the text itself.
std::string_view slice(std::string_view text, std::size_t start, std::size_t length = std::string_view::npos);

/// The first and the last byte of a text; '\0' when there is none.
char firstByte(std::string_view text);
char lastByte(std::string_view text);

/// The text in upper case, byte by byte, for ASCII letters.
std::string toUpper(std::string text);

}  // namespace gateway
