#include "ctl/table.h"

#include <algorithm>
#include <cassert>
#include <numeric>
#include <utility>

#include "ctl/text.h"
#include "tk/characters.h"

namespace ctl {

namespace {

constexpr std::size_t columnGap = 2;
// What a column keeps, so that something can be read of it.
constexpr std::size_t shortestText = 8;
constexpr std::size_t shortestFigure = 4;
constexpr std::size_t shortestWrapped = 18;

/// True when the cell is a number, an address, a time or nothing.
bool isFigure(const std::string& cell) {
    return cell.find_first_not_of("0123456789.:-/,TZ") == std::string::npos;
}

std::size_t totalWidth(const std::vector<std::size_t>& widths) {
    return std::accumulate(widths.begin(), widths.end(), columnGap * (widths.size() - 1));
}

}  // namespace

Table::Table(Row headings) : widths(headings.size()) {
    append(std::move(headings));
}

void Table::add(Row cells) {
    assert(cells.size() == widths.size());
    for (std::string& cell : cells) cell = cell.empty() ? "-" : tk::printable(cell);
    append(std::move(cells));
}

void Table::append(Row cells) {
    for (std::size_t column = 0; column < widths.size(); ++column)
        widths[column] = std::max(widths[column], displayWidth(cells[column]));
    rows.push_back(std::move(cells));
}

void Table::keepWhole(const std::string& heading) {
    whole.insert(heading);
}

void Table::dropToFit(const Terminal& terminal, std::initializer_list<std::string_view> headings) {
    for (const std::string_view heading : headings) {
        if (terminal.width == 0 || !shortenedTo(terminal.width).isFiguresToo) return;
        const Row& names = rows.front();
        const auto found = std::find(names.begin(), names.end(), heading);
        if (found != names.end()) drop(static_cast<std::size_t>(found - names.begin()));
    }
}

void Table::drop(std::size_t column) {
    const auto place = static_cast<std::ptrdiff_t>(column);
    for (Row& row : rows) row.erase(row.begin() + place);
    widths.erase(widths.begin() + place);
}

Table::Kind Table::kindOf(std::size_t column) const {
    if (whole.contains(rows.front()[column])) return Kind::whole;
    if (wrapsLast && column + 1 == widths.size()) return Kind::wrapped;
    const bool isText =
        std::any_of(rows.begin() + 1, rows.end(), [&](const Row& row) { return !isFigure(row[column]); });
    return isText ? Kind::text : Kind::figure;
}

Table::Shortening Table::shortenedTo(std::size_t limit) const {
    std::vector<Kind> kinds;
    for (std::size_t column = 0; column < widths.size(); ++column) kinds.push_back(kindOf(column));
    Shortening fitting{widths, false};
    const auto widestOf = [&](Kind kind, std::size_t shortest) {
        std::size_t* widest = nullptr;
        for (std::size_t column = 0; column < kinds.size(); ++column) {
            std::size_t& width = fitting.widths[column];
            if (kinds[column] == kind && width > shortest && (!widest || width > *widest)) widest = &width;
        }
        return widest;
    };
    const auto shorten = [&](Kind kind, std::size_t shortest) {
        while (totalWidth(fitting.widths) > limit) {
            std::size_t* const widest = widestOf(kind, shortest);
            if (!widest) return;
            --*widest;
        }
    };
    shorten(Kind::wrapped, shortestWrapped);
    shorten(Kind::text, shortestText);
    fitting.isFiguresToo = totalWidth(fitting.widths) > limit;
    shorten(Kind::figure, shortestFigure);
    return fitting;
}

void Table::addLines(const Row& row, const std::vector<std::size_t>& fitting, const Terminal& terminal,
                     std::vector<Line>& lines) const {
    const Style style = lines.empty() ? Style::strong : Style::plain;
    std::string text;
    for (std::size_t column = 0; column + 1 < row.size(); ++column) {
        const std::string cell = shortened(row[column], fitting[column], terminal.ellipsis());
        text += cell;
        text.append(fitting[column] + columnGap - displayWidth(cell), ' ');
    }
    const std::size_t start = displayWidth(text);
    const std::vector<std::string> parts =
        wrapsLast ? wrapped(row.back(), fitting.back())
                  : std::vector<std::string>{shortened(row.back(), fitting.back(), terminal.ellipsis())};
    for (const std::string& part : parts) {
        lines.push_back({{text + part, style}});
        text.assign(start, ' ');
    }
}

std::vector<Line> Table::linesWithin(const Terminal& terminal) const {
    const std::vector<std::size_t> fitting =
        terminal.width == 0 ? widths : shortenedTo(terminal.width).widths;
    std::vector<Line> lines;
    for (const Row& row : rows) addLines(row, fitting, terminal, lines);
    return lines;
}

std::string Table::textWithin(const Terminal& terminal) const {
    return terminal.render(linesWithin(terminal));
}

}  // namespace ctl
