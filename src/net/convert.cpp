#include "net/convert.h"

#include <arpa/inet.h>

#include <array>
#include <cstdio>
#include <limits>

#include "tk/platform.h"

namespace gateway {

namespace {

/// A number as written: its sign, its magnitude, and how many bytes were read.
struct Written {
    bool negative = false;
    std::uint64_t magnitude = 0;  // stops growing above 32 bits
    std::size_t length = 0;       // 0 when there is no number
};

bool isSpace(char byte) {
    return byte == ' ' || (byte >= '\t' && byte <= '\r');
}

bool isDigit(char byte) {
    return byte >= '0' && byte <= '9';
}

/// Reads white space, a sign and digits. The C library would read wider numbers than these.
Written readNumber(const std::string& text) {
    Written number;
    const char* const start = text.c_str();  // ends in '\0', which stops each search
    const char* next = start;
    while (isSpace(*next)) ++next;
    if (*next == '-' || *next == '+') number.negative = *next++ == '-';
    if (!isDigit(*next)) return {};
    for (; isDigit(*next); ++next)
        if (number.magnitude <= std::numeric_limits<std::uint32_t>::max())
            number.magnitude = number.magnitude * 10 + static_cast<std::uint64_t>(*next - '0');
    number.length = static_cast<std::size_t>(next - start);
    return number;
}

std::uint32_t asUnsigned(const Written& number) {
    if (number.magnitude > std::numeric_limits<std::uint32_t>::max())
        return std::numeric_limits<std::uint32_t>::max();
    const auto value = static_cast<std::uint32_t>(number.magnitude);
    return number.negative ? 0 - value : value;
}

}  // namespace

std::string toString(std::int32_t value) {
    return std::to_string(value);
}

std::string toString(std::uint32_t value) {
    return std::to_string(value);
}

std::string toHexString(std::uint32_t value) {
    std::array<char, 9> digits{};
    std::snprintf(digits.data(), digits.size(), "%08x", value);
    return digits.data();
}

std::string ipToString(std::uint32_t address) {
    return inet_ntoa(in_addr{address});
}

std::uint32_t toUnsigned(const std::string& text) {
    return asUnsigned(readNumber(text));
}

std::int32_t toInt(const std::string& text) {
    const Written number = readNumber(text);
    constexpr std::int64_t lowest = std::numeric_limits<std::int32_t>::min();
    constexpr std::int64_t highest = std::numeric_limits<std::int32_t>::max();
    const auto magnitude = static_cast<std::int64_t>(number.magnitude);
    const std::int64_t value = number.negative ? -magnitude : magnitude;
    if (value < lowest) return static_cast<std::int32_t>(lowest);
    return static_cast<std::int32_t>(value > highest ? highest : value);
}

bool isUnsigned(const std::string& text, std::uint32_t& value) {
    const Written number = readNumber(text);
    value = asUnsigned(number);
    return number.length == text.size();
}

std::uint32_t toAddress(const std::string& text) {
    return inet_addr(text.c_str());
}

std::string uptimeString() {
    return toString(tk::getUptime());
}

std::string_view stripPrefix(std::string_view name) {
    const std::size_t colon = name.rfind(':');
    return colon == std::string_view::npos ? name : slice(name, colon + 1);
}

std::string_view slice(std::string_view text, std::size_t start, std::size_t length) {
    return start < text.size() ? text.substr(start, length) : std::string_view();
}

char firstByte(std::string_view text) {
    return text.empty() ? '\0' : text.front();
}

char lastByte(std::string_view text) {
    return text.empty() ? '\0' : text.back();
}

std::string toUpper(std::string text) {
    for (char& byte : text)
        if (byte >= 'a' && byte <= 'z') byte = static_cast<char>(byte - 'a' + 'A');
    return text;
}

}  // namespace gateway
