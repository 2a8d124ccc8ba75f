#include "ctl/terminal.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>

#include "ctl/text.h"

namespace ctl {

namespace {

constexpr std::size_t usualWidth = 80;
constexpr std::size_t usualHeight = 24;
constexpr std::uint64_t largestSize = 10000;

/// The value, or an empty text.
std::string_view valueOf(const Terminal::Variable& variable, const char* name) {
    const char* value = variable(name);
    return value ? value : "";
}

bool namesUnicode(std::string_view locale) {
    std::string letters;
    for (const char letter : locale)
        if (letter != '-') letters += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return letters.find("utf8") != std::string::npos;
}

/// The first of the three variables that is set decides, as in the C library.
bool isUnicodeLocale(const Terminal::Variable& variable) {
    for (const char* name : {"LC_ALL", "LC_CTYPE", "LANG"})
        if (const std::string_view locale = valueOf(variable, name); !locale.empty())
            return namesUnicode(locale);
    return false;
}

std::size_t sizeOf(unsigned short told, std::string_view named, std::size_t usual) {
    if (told > 0) return told;
    const auto number = parseNumber(named, largestSize);
    return number && *number > 0 ? static_cast<std::size_t>(*number) : usual;
}

}  // namespace

Terminal Terminal::of(int descriptor, const Variable& variable) {
    Terminal terminal;
    terminal.isUnicode = isUnicodeLocale(variable);
    terminal.isTerminal = ::isatty(descriptor) == 1;
    if (!terminal.isTerminal) return terminal;
    const std::string_view kind = valueOf(variable, "TERM");
    terminal.hasCursor = !kind.empty() && kind != "dumb";
    terminal.hasColours = terminal.hasCursor && valueOf(variable, "NO_COLOR").empty();
    winsize size{};
    if (::ioctl(descriptor, TIOCGWINSZ, &size) != 0) size = {};
    terminal.width = sizeOf(size.ws_col, valueOf(variable, "COLUMNS"), usualWidth);
    terminal.height = sizeOf(size.ws_row, valueOf(variable, "LINES"), usualHeight);
    return terminal;
}

std::string Terminal::paint(Style style, std::string_view text) const {
    const std::string_view sequence = hasColours ? styleSequence(style) : "";
    if (sequence.empty()) return std::string(text);
    return std::string(sequence).append(text).append(resetSequence);
}

std::string Terminal::render(const std::vector<Line>& lines) const {
    std::string out;
    for (const Line& line : lines) {
        for (const Span& span : line) out += paint(span.style, span.text);
        out += '\n';
    }
    return out;
}

const char* Terminal::processVariable(const char* name) {
    return std::getenv(name);
}

std::string_view styleSequence(Style style) {
    switch (style) {
        case Style::plain:
            return "";
        case Style::strong:
            return "\x1b[1m";
        case Style::faint:
            return "\x1b[2m";
        case Style::good:
            return "\x1b[32m";
        case Style::warning:
            return "\x1b[33m";
        case Style::bad:
            return "\x1b[31m";
    }
    return "";
}

}  // namespace ctl
