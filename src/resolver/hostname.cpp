#include "resolver/hostname.h"

#include <algorithm>

#include "net/convert.h"

namespace resolver {

namespace {

constexpr std::size_t labelLimit = 63;
constexpr std::size_t nameLimit = 253;  // as text; 255 bytes in a packet

bool isUpper(char character) {
    return character >= 'A' && character <= 'Z';
}
bool isDigit(char character) {
    return character >= '0' && character <= '9';
}
bool isAlphanumeric(char character) {
    return isUpper(character) || isDigit(character) || (character >= 'a' && character <= 'z');
}
bool isInside(char character) {
    return isAlphanumeric(character) || character == '-';
}
char toLower(char character) {
    return isUpper(character) ? static_cast<char>(character - 'A' + 'a') : character;
}

bool isLabel(std::string_view label) {
    return !label.empty() && label.size() <= labelLimit && isAlphanumeric(label.front()) &&
           isAlphanumeric(label.back()) && std::all_of(label.begin(), label.end(), isInside);
}

}  // namespace

bool isHostName(std::string_view text) {
    if (gateway::lastByte(text) == '.') text.remove_suffix(1);
    if (text.size() > nameLimit) return false;
    for (;;) {
        const std::size_t dot = text.find('.');
        const std::string_view label = gateway::slice(text, 0, dot);
        if (!isLabel(label)) return false;
        if (dot == std::string_view::npos) return !std::all_of(label.begin(), label.end(), isDigit);
        text.remove_prefix(dot + 1);
    }
}

std::string lowerCase(std::string_view name) {
    std::string lower(name);
    std::transform(lower.begin(), lower.end(), lower.begin(), toLower);
    return lower;
}

}  // namespace resolver
