#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "tk/message.h"
#include "tk/names.h"

namespace ctl {

/// How many terminal columns a printable text takes.
[[nodiscard]] std::size_t displayWidth(std::string_view text);

/// A printable text cut to `width` columns; a cut text ends in `ellipsis`, which takes one of them.
[[nodiscard]] std::string shortened(std::string_view text, std::size_t width, std::string_view ellipsis);

/// A printable text as lines of at most `width` columns, broken between words, and within a word only where
/// that alone is wider.
[[nodiscard]] std::vector<std::string> wrapped(std::string_view text, std::size_t width);

/// As much of a control point's text as a line has room for, made printable.
[[nodiscard]] std::string beginningOf(std::string_view text);

/// "0x1a3": lower case, no leading zeros.
[[nodiscard]] std::string hexText(std::uint32_t value);

/// "20,5".
[[nodiscard]] std::string pathText(const tk::Path& path);

/// "2026-01-02T03:04:05Z".
/// Units: seconds since the epoch.
/// Errors: a time outside the calendar gives the number itself.
[[nodiscard]] std::string timeText(std::uint64_t seconds);

/// "tcp", "udp", or the number of another IP protocol.
[[nodiscard]] std::string protocolText(std::uint32_t protocol);

/// Who has a number on the bus: "upnpd", "program 81" for one without a name, "client 1003".
[[nodiscard]] std::string programText(std::uint32_t number);

/// "yes" or "no".
[[nodiscard]] std::string yesNo(bool value);

/// A decimal or 0x hexadecimal number; the whole text must be one.
/// Errors: none when it is not one, or exceeds `limit`.
[[nodiscard]] std::optional<std::uint64_t> parseNumber(std::string_view text, std::uint64_t limit);

/// The same for 32 bits.
[[nodiscard]] std::optional<std::uint32_t> parseU32(std::string_view text);

/// A path: numbers separated by commas.
/// Errors: none for an empty text or any other form.
[[nodiscard]] std::optional<tk::Path> parsePath(std::string_view text);

/// "u32", "bool", "string", "be32", "u64", "u32[]" or "message[]".
[[nodiscard]] std::string_view typeName(tk::FieldType type);

/// The type with such a name.
/// Errors: none for any other.
[[nodiscard]] std::optional<tk::FieldType> typeNamed(std::string_view name);

/// "request", "reply", "error" or "notification".
[[nodiscard]] std::string_view kindName(tk::Kind kind);

}  // namespace ctl
