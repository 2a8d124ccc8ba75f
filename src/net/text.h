#pragma once

#include <cstddef>
#include <string_view>

/// The part of `text` that begins at `start` and has at most `length` bytes; empty when `start` lies past the
/// end. Lifetime: as long as the text itself.
std::string_view slice(std::string_view text, std::size_t start, std::size_t length = std::string_view::npos);

/// The first and the last byte of a text; '\0' when there is none.
char firstByte(std::string_view text);
char lastByte(std::string_view text);
