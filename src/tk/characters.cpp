#include "tk/characters.h"

#include <algorithm>
#include <iterator>

namespace tk {

namespace {

struct Range {
    char32_t first;
    char32_t last;
};

constexpr Range controls[] = {
    {0x00, 0x1F},     {0x7F, 0x9F},     {0x061C, 0x061C},  // marks of the direction
    {0x200E, 0x200F}, {0x2028, 0x2029},                    // and ends of lines and paragraphs
    {0x202A, 0x202E}, {0x2066, 0x2069},                    // embeddings, overrides and isolates
};

constexpr Range narrow[] = {
    {0x0300, 0x036F}, {0x1AB0, 0x1AFF}, {0x1DC0, 0x1DFF},  // accents over the character before
    {0x200B, 0x200D}, {0x2060, 0x2060}, {0x20D0, 0x20FF},   {0xFE00, 0xFE0F},
    {0xFE20, 0xFE2F}, {0xFEFF, 0xFEFF}, {0xE0100, 0xE01EF},
};

constexpr Range wide[] = {
    {0x1100, 0x115F},   {0x2E80, 0x303E},   {0x3041, 0x4DBF},   {0x4E00, 0xA4CF},   {0xA960, 0xA97C},
    {0xAC00, 0xD7A3},   {0xF900, 0xFAFF},   {0xFE30, 0xFE6F},   {0xFF01, 0xFF60},   {0xFFE0, 0xFFE6},
    {0x1F300, 0x1F64F}, {0x1F680, 0x1F6FF}, {0x1F900, 0x1F9FF}, {0x20000, 0x3FFFD},
};

template <std::size_t count>
bool isIn(const Range (&ranges)[count], char32_t code) {
    return std::any_of(std::begin(ranges), std::end(ranges),
                       [code](const Range& range) { return code >= range.first && code <= range.last; });
}

/// The length of a character, as its first byte announces it; 0 for a byte that starts none.
std::size_t announcedLength(unsigned char first) {
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first < 0xE0) return 2;
    if (first >= 0xE0 && first < 0xF0) return 3;
    if (first >= 0xF0 && first < 0xF5) return 4;
    return 0;
}

/// False for a code that has a shorter form, is half of a surrogate pair, or lies beyond the last one.
bool isWellFormed(char32_t code, std::size_t length) {
    constexpr char32_t lowest[] = {0, 0, 0x80, 0x800, 0x10000};
    return code >= lowest[length] && code <= 0x10FFFF && (code < 0xD800 || code > 0xDFFF);
}

/// How many bytes at the front are plain and of ASCII, as nearly all are.
std::size_t plainRun(std::string_view text) {
    const auto end =
        std::find_if(text.begin(), text.end(), [](unsigned char byte) { return byte < 0x20 || byte > 0x7E; });
    return static_cast<std::size_t>(end - text.begin());
}

constexpr std::size_t escapeLength = 4;  // of one byte, as \xNN

void appendEscaped(std::string& out, std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    for (const char each : bytes) {
        const auto byte = static_cast<unsigned char>(each);
        out += "\\x";
        out += digits[byte >> 4];
        out += digits[byte & 15];
    }
}

}  // namespace

Character firstCharacter(std::string_view text) {
    const auto first = static_cast<unsigned char>(text.front());
    const std::size_t length = announcedLength(first);
    if (length == 0 || text.size() < length) return {};
    if (length == 1) return {first, 1};
    char32_t code = first & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[i]);
        if ((next & 0xC0) != 0x80) return {};
        code = code << 6 | (next & 0x3FU);
    }
    return isWellFormed(code, length) ? Character{code, length} : Character{};
}

std::string takePrintable(std::string_view& text, std::size_t limit) {
    std::string out;
    out.reserve(std::min(text.size(), limit));
    for (;;) {
        const std::size_t run = std::min(plainRun(text), limit - out.size());
        out += text.substr(0, run);
        text.remove_prefix(run);
        if (text.empty()) break;
        const Character character = firstCharacter(text);
        const std::size_t length = std::max<std::size_t>(character.length, 1);
        const bool plain = character.length > 0 && isPlain(character.code);
        if (out.size() + (plain ? length : length * escapeLength) > limit) break;
        if (plain)
            out += text.substr(0, length);
        else
            appendEscaped(out, text.substr(0, length));
        text.remove_prefix(length);
    }
    return out;
}

std::string printable(std::string_view text) {
    return takePrintable(text, std::string::npos);
}

bool isPlain(char32_t code) {
    return !isIn(controls, code);
}

std::size_t columnsOf(char32_t code) {
    if (code < narrow[0].first) return 1;  // nearly all
    if (isIn(narrow, code)) return 0;
    return isIn(wide, code) ? 2 : 1;
}

}  // namespace tk
