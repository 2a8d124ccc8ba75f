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
    const bool isText =
        std::any_of(rows.begin() + 1, rows.end(), [&](const Row& row) { return !isFigure(row[column]); });
    return isText ? Kind::text : Kind::figure;
}

Table::Shortening Table::shortenedTo(std::size_t limit) const {
    std::vector<Kind> kinds;
    for (std::size_t column = 0; column < widths.size(); ++column) kinds.push_back(kindOf(column));
    Shortening fitting{widths, false};
    const auto shorten = [&](Kind kind, std::size_t shortest) {
        while (totalWidth(fitting.widths) > limit) {
            std::size_t* widest = nullptr;
            for (std::size_t column = 0; column < kinds.size(); ++column) {
                std::size_t& width = fitting.widths[column];
                if (kinds[column] == kind && width > shortest && (!widest || width > *widest))
                    widest = &width;
            }
            if (!widest) return;
            --*widest;
        }
    };
    shorten(Kind::text, shortestText);
    fitting.isFiguresToo = totalWidth(fitting.widths) > limit;
    shorten(Kind::figure, shortestFigure);
    return fitting;
}

std::vector<Line> Table::linesWithin(const Terminal& terminal) const {
    const std::vector<std::size_t> fitting =
        terminal.width == 0 ? widths : shortenedTo(terminal.width).widths;
    std::vector<Line> lines;
    for (const Row& row : rows) {
        std::string text;
        for (std::size_t column = 0; column < row.size(); ++column) {
            const std::string cell = shortened(row[column], fitting[column], terminal.ellipsis());
            text += cell;
            if (column + 1 == row.size()) break;  // no trailing blanks
            text.append(fitting[column] + columnGap - displayWidth(cell), ' ');
        }
        lines.push_back({{std::move(text), lines.empty() ? Style::strong : Style::plain}});
    }
    return lines;
}

std::string Table::textWithin(const Terminal& terminal) const {
    return terminal.render(linesWithin(terminal));
}

}  // namespace ctl
