#include "net/text.h"

std::string_view slice(std::string_view text, std::size_t start, std::size_t length) {
    return start < text.size() ? text.substr(start, length) : std::string_view();
}

char firstByte(std::string_view text) {
    return text.empty() ? '\0' : text.front();
}

char lastByte(std::string_view text) {
    return text.empty() ? '\0' : text.back();
}
