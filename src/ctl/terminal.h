#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// How a piece of text stands out, where the reader can see it.
enum class Style { plain, strong, faint, good, warning, bad };

/// A piece of a line in one style. A value.
struct Span {
    std::string text;
    Style style = Style::plain;

    bool operator==(const Span&) const = default;
};

/// A line without its end.
using Line = std::vector<Span>;

/// What the reader of an output can show. A value; as it is made, the output is no terminal, and all is plain
/// and whole.
struct Terminal {
    /// The value of an environment variable; null when it is not set.
    using Variable = std::function<const char*(const char* name)>;

    /// True when people read it.
    bool isTerminal = false;
    /// True when it is a terminal whose cursor can be moved.
    bool hasCursor = false;
    /// True when colours may be used: only on a terminal, and never with NO_COLOR or TERM=dumb.
    bool hasColours = false;
    /// True when the locale is one of UTF-8.
    bool isUnicode = false;
    /// Columns and lines; 0: without limit.
    std::size_t width = 0;
    std::size_t height = 0;

    /// The terminal behind a descriptor. A line that does not know its size is COLUMNS wide and LINES high, or
    /// else 80 and 24.
    [[nodiscard]] static Terminal of(int descriptor, const Variable& variable = processVariable);

    /// The text in a style, where there are colours; else the text alone.
    [[nodiscard]] std::string paint(Style style, std::string_view text) const;
    /// The text of lines, with an end to each.
    [[nodiscard]] std::string render(const std::vector<Line>& lines) const;
    /// What stands for the rest of a text that was cut: one column.
    [[nodiscard]] std::string ellipsis() const { return isUnicode ? "…" : "~"; }

    /// A variable of this process.
    static const char* processVariable(const char* name);
};

/// What turns a style on, after a reset; empty for plain text.
[[nodiscard]] std::string_view styleSequence(Style style);
/// What turns all styles off.
constexpr std::string_view resetSequence = "\x1b[0m";

}  // namespace ctl
