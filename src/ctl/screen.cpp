#include "ctl/screen.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "tk/characters.h"

namespace ctl {

namespace {

// To move the cursor takes about as many bytes as to write these again.
constexpr std::size_t shortestGap = 8;
constexpr std::string_view clearScreen = "\x1b[H\x1b[2J";
constexpr std::string_view clearRest = "\x1b[K";

std::string moveTo(std::size_t row, std::size_t column) {
    return "\x1b[" + std::to_string(row + 1) + ';' + std::to_string(column + 1) + 'H';
}

}  // namespace

Screen::Row Screen::cellsOf(const Line& line) const {
    Row row;
    for (const Span& span : line) {
        const Style style = terminal.hasColours ? span.style : Style::plain;
        for (std::string_view rest = span.text; !rest.empty();) {
            const tk::Character character = tk::firstCharacter(rest);
            const std::size_t length = std::max<std::size_t>(character.length, 1);
            const std::size_t columns = character.length > 0 ? tk::columnsOf(character.code) : 1;
            const std::string_view text = rest.substr(0, length);
            rest.remove_prefix(length);
            if (columns == 0 && !row.empty()) row.back().text += text;  // joins what stands before it
            if (columns == 0) continue;
            if (row.size() + columns > terminal.width) return row;
            row.push_back({std::string(text), style});
            if (columns == 2) row.push_back({"", style});
        }
    }
    // Blanks at the end are what an empty screen has anyway.
    while (!row.empty() && row.back() == Cell{}) row.pop_back();
    return row;
}

void Screen::write(const Row& row, std::size_t first, std::size_t end, std::string& out) {
    Style style = Style::plain;
    for (std::size_t column = first; column < end; ++column) {
        if (row[column].style != style) {
            if (style != Style::plain) out += resetSequence;
            style = row[column].style;
            out += styleSequence(style);
        }
        out += row[column].text;
    }
    if (style != Style::plain) out += resetSequence;
}

void Screen::drawRow(std::size_t number, const Row& now, std::string& out) {
    Row& before = shown[number];
    const auto differs = [&](std::size_t column) {
        return column >= before.size() ? !(now[column] == Cell{}) : !(now[column] == before[column]);
    };
    for (std::size_t first = 0; first < now.size(); ++first) {
        if (!differs(first)) continue;
        std::size_t end = first + 1;
        for (std::size_t column = end; column < now.size() && column < end + shortestGap; ++column)
            if (differs(column)) end = column + 1;
        while (first > 0 && now[first].text.empty()) --first;     // a wide character begins before
        while (end < now.size() && now[end].text.empty()) ++end;  // and ends after
        out += moveTo(number, first);
        write(now, first, end, out);
        first = end;
    }
    if (before.size() > now.size()) out += moveTo(number, now.size()).append(clearRest);
    before = now;
}

std::string Screen::draw(const std::vector<Line>& frame) {
    std::string out;
    if (!isKnown) out = clearScreen;
    isKnown = true;
    shown.resize(terminal.height);
    for (std::size_t number = 0; number < terminal.height; ++number)
        drawRow(number, number < frame.size() ? cellsOf(frame[number]) : Row{}, out);
    return out;
}

void Screen::forget(const Terminal& changed) {
    terminal = changed;
    shown.clear();
    isKnown = false;
}

}  // namespace ctl
