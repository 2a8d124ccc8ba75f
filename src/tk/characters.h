#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace tk {

/// One character of a text in UTF-8.
struct Character {
    char32_t code = 0;
    std::size_t length = 0;  // in bytes; 0: the text does not begin with a character
};

/// The character at the front of a text that is not empty.
/// Errors: length 0 when the bytes are not UTF-8.
[[nodiscard]] Character firstCharacter(std::string_view text);

/// The text with all that is not plain or not UTF-8 written as \xNN, byte by byte.
[[nodiscard]] std::string printable(std::string_view text);

/// The same for as many leading characters as fit into `limit` bytes; they are removed from `text`.
[[nodiscard]] std::string takePrintable(std::string_view& text, std::size_t limit);

/// True when the character shows as itself and leaves its line as it is: it is no control character, no line
/// end, and none that turns the direction of the text around it.
[[nodiscard]] bool isPlain(char32_t code);

/// How many columns of a terminal the character takes: 0, 1 or 2.
[[nodiscard]] std::size_t columnsOf(char32_t code);

}  // namespace tk
