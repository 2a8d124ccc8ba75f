#include "ctl/text.h"

#include <arpa/inet.h>
#include <time.h>

#include <charconv>
#include <limits>

namespace ctl {

namespace {

constexpr std::uint32_t tcp = 6;
constexpr std::uint32_t udp = 17;

bool isContinuation(char character) {
    return (static_cast<unsigned char>(character) & 0xC0) == 0x80;
}

/// A character's bytes announced by its first one; 0 for a byte that starts none.
std::size_t sequenceLength(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first < 0xE0) return 2;
    if (first >= 0xE0 && first < 0xF0) return 3;
    if (first >= 0xF0 && first < 0xF5) return 4;
    return 0;
}

/// The bytes of the character at the front of `text`; 0 when it is malformed or a control character.
std::size_t printableLength(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    if (first < 0x20 || first == 0x7f) return 0;
    const std::size_t length = sequenceLength(first);
    if (length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if (!isContinuation(text[i])) return 0;
    if (length == 1) return 1;
    const auto second = static_cast<unsigned char>(text[1]);
    const bool upperControl = first == 0xC2 && second < 0xA0;  // U+0080 to U+009F
    const bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    const bool beyond = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    return upperControl || overlong || beyond ? 0 : length;
}

}  // namespace

std::string printable(std::string_view text) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        if (length > 0) {
            out += text.substr(0, length);
        } else {
            const auto byte = static_cast<unsigned char>(text.front());
            out += "\\x";
            out += digits[byte >> 4];
            out += digits[byte & 15];
        }
        text.remove_prefix(length > 0 ? length : 1);
    }
    return out;
}

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    for (const char character : text)
        if (!isContinuation(character)) ++width;
    return width;
}

std::string hexText(std::uint32_t value) {
    char digits[2 * sizeof value];
    const auto end = std::to_chars(digits, digits + sizeof digits, value, 16);
    return "0x" + std::string(digits, end.ptr);
}

std::string pathText(const tk::Path& path) {
    std::string text;
    for (const std::uint32_t element : path) {
        if (!text.empty()) text += ',';
        text += std::to_string(element);
    }
    return text;
}

std::string timeText(std::uint64_t seconds) {
    tm broken{};
    const auto time = static_cast<time_t>(seconds);
    if (seconds > static_cast<std::uint64_t>(std::numeric_limits<time_t>::max()) || !gmtime_r(&time, &broken))
        return std::to_string(seconds);
    char text[64];
    return std::string(text, strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &broken));
}

std::string protocolText(std::uint32_t protocol) {
    if (protocol == tcp) return "tcp";
    if (protocol == udp) return "udp";
    return std::to_string(protocol);
}

std::string yesNo(bool value) {
    return value ? "yes" : "no";
}

std::optional<std::uint64_t> parseNumber(std::string_view text, std::uint64_t limit) {
    int base = 10;
    if (text.starts_with("0x") || text.starts_with("0X")) {
        base = 16;
        text.remove_prefix(2);
    }
    std::uint64_t value = 0;
    const char* const end = text.data() + text.size();
    const auto parsed = std::from_chars(text.data(), end, value, base);
    if (parsed.ec != std::errc() || parsed.ptr != end || value > limit) return std::nullopt;
    return value;
}

std::optional<std::uint32_t> parseU32(std::string_view text) {
    const auto value = parseNumber(text, std::numeric_limits<std::uint32_t>::max());
    if (!value) return std::nullopt;
    return static_cast<std::uint32_t>(*value);
}

std::optional<tk::Path> parsePath(std::string_view text) {
    tk::Path path;
    for (;;) {
        const std::size_t comma = text.find(',');
        const auto element = parseU32(text.substr(0, comma));
        if (!element) return std::nullopt;
        path.push_back(*element);
        if (comma == std::string_view::npos) return path;
        text.remove_prefix(comma + 1);
    }
}

std::optional<std::uint32_t> parseAddress(const std::string& text) {
    in_addr address{};
    if (text.find('\0') != std::string::npos || inet_pton(AF_INET, text.c_str(), &address) != 1)
        return std::nullopt;
    return address.s_addr;
}

}  // namespace ctl
