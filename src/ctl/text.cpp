#include "ctl/text.h"

#include <time.h>

#include <algorithm>
#include <charconv>
#include <limits>

#include "contract/programs.h"
#include "tk/characters.h"

namespace ctl {

namespace {

constexpr std::uint32_t tcp = 6;
constexpr std::uint32_t udp = 17;

struct TypeName {
    tk::FieldType type;
    std::string_view name;
};

constexpr TypeName typeNames[] = {
    {tk::FieldType::u32, "u32"},
    {tk::FieldType::boolean, "bool"},
    {tk::FieldType::string, "string"},
    {tk::FieldType::be32, "be32"},
    {tk::FieldType::u64, "u64"},
    {tk::FieldType::u32Array, "u32[]"},
    {tk::FieldType::messageArray, "message[]"},
};

struct ProgramName {
    std::uint32_t number;
    const char* name;
};

constexpr ProgramName programNames[] = {
    {contract::program::gateway, "upnpd"},   {contract::program::resolver, "resolverd"},
    {contract::program::network, "routerd"}, {contract::program::identity, "routerd"},
    {tk::program::history, "routerd"},       {tk::program::hub, "routerd"},
};

}  // namespace

std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) {
        const tk::Character character = tk::firstCharacter(text);
        width += character.length > 0 ? tk::columnsOf(character.code) : 1;
        text.remove_prefix(std::max<std::size_t>(character.length, 1));
    }
    return width;
}

std::string shortened(std::string_view text, std::size_t width, std::string_view ellipsis) {
    if (displayWidth(text) <= width) return std::string(text);
    if (width == 0) return {};
    std::size_t kept = 0;
    for (std::size_t used = 0;;) {
        const tk::Character character = tk::firstCharacter(text.substr(kept));
        used += character.length > 0 ? tk::columnsOf(character.code) : 1;
        if (used >= width) break;
        kept += std::max<std::size_t>(character.length, 1);
    }
    return std::string(text.substr(0, kept)).append(ellipsis);
}

std::vector<std::string> wrapped(std::string_view text, std::size_t width) {
    std::vector<std::string> lines;
    while (displayWidth(text) > width) {
        // At least one character a line, however narrow it is.
        const std::size_t fitting = std::max(shortened(text, width + 1, "").size(),
                                             std::max<std::size_t>(tk::firstCharacter(text).length, 1));
        const std::size_t blank = text.rfind(' ', fitting);
        const bool isBetweenWords = blank != std::string_view::npos && blank > 0;
        const std::size_t end = isBetweenWords ? blank : fitting;
        lines.emplace_back(text.substr(0, end));
        text.remove_prefix(isBetweenWords ? end + 1 : end);
    }
    if (lines.empty() || !text.empty()) lines.emplace_back(text);
    return lines;
}

std::string beginningOf(std::string_view text) {
    constexpr std::size_t longest = 60;  // bytes
    const std::string beginning = tk::takePrintable(text, longest);
    return text.empty() ? beginning : beginning + "...";
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

std::string programText(std::uint32_t number) {
    if (number >= tk::program::firstClient) return "client " + std::to_string(number);
    for (const ProgramName& entry : programNames)
        if (entry.number == number) return entry.name;
    return "program " + std::to_string(number);
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

std::string_view typeName(tk::FieldType type) {
    for (const TypeName& entry : typeNames)
        if (entry.type == type) return entry.name;
    return {};
}

std::optional<tk::FieldType> typeNamed(std::string_view name) {
    for (const TypeName& entry : typeNames)
        if (entry.name == name) return entry.type;
    return std::nullopt;
}

std::string_view kindName(tk::Kind kind) {
    switch (kind) {
        case tk::Kind::request:
            return "request";
        case tk::Kind::reply:
            return "reply";
        case tk::Kind::error:
            return "error";
        case tk::Kind::notification:
            return "notification";
    }
    return {};
}

}  // namespace ctl
