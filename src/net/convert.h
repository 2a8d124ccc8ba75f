#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace gateway {

/// A number in decimal.
std::string toString(std::int32_t value);
std::string toString(std::uint32_t value);

/// Eight lower-case hexadecimal digits, with leading zeros.
std::string toHexString(std::uint32_t value);

/// An IPv4 address as a dotted quad.
/// Byte order: network.
std::string ipToString(std::uint32_t address);

/// The decimal number at the start of `text`. White space and a sign may precede it, and whatever follows it
/// is ignored. A text without a number gives 0. The number has 32 bits: a magnitude beyond 4294967295 gives
/// 4294967295, and a minus sign negates modulo 2^32, so that -1 is 4294967295.
std::uint32_t toUnsigned(const std::string& text);

/// The same for a signed number, limited to -2147483648 to 2147483647.
std::int32_t toInt(const std::string& text);

/// True when nothing follows the number at the start of `text`. `value` is then that number, as toUnsigned()
/// reads it. An empty text is 0.
/// Errors: also false for a text that is not empty and holds no number.
[[nodiscard]] bool isUnsigned(const std::string& text, std::uint32_t& value);

/// The address that a dotted text stands for. Like inet_addr(), it accepts fewer than four numbers, octal and
/// hexadecimal numbers, and words after a blank.
/// Byte order: network.
/// Errors: all ones (255.255.255.255) for an empty or malformed text.
std::uint32_t toAddress(const std::string& text);

/// How long the router has been running, in decimal.
/// Units: seconds.
std::string uptimeString();

/// The part of a qualified name after its last ':', or the whole name if it has none.
/// Lifetime: as long as the name itself.
std::string_view stripPrefix(std::string_view name);

/// Up to `length` bytes of `text` from `start` on; empty when `start` lies past the end.
/// Lifetime: as long as the text itself.
std::string_view slice(std::string_view text, std::size_t start, std::size_t length = std::string_view::npos);

/// The first and the last byte of a text; '\0' when it is empty.
char firstByte(std::string_view text);
char lastByte(std::string_view text);

/// The text with its ASCII letters in upper case.
std::string toUpper(std::string text);

}  // namespace gateway
