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
/// Errors: length 0 where the bytes are no UTF-8.
[[nodiscard]] Character firstCharacter(std::string_view text);

/// The text with what is not plain, and whatever is no UTF-8, written as \xNN, byte by byte.
[[nodiscard]] std::string printable(std::string_view text);

/// The same of as many characters as have room in `limit` bytes; they are taken from the text.
[[nodiscard]] std::string takePrintable(std::string_view& text, std::size_t limit);

/// True when the character is shown as itself and leaves its line as it is: no control character, no end of a
/// line, and none of those that turn the direction in which the text around them is shown.
[[nodiscard]] bool isPlain(char32_t code);

/// How many columns of a terminal the character takes: 0, 1 or 2.
[[nodiscard]] std::size_t columnsOf(char32_t code);

}  // namespace tk
