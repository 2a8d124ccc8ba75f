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

bool Table::isText(std::size_t column) const {
    return std::any_of(rows.begin() + 1, rows.end(), [&](const Row& row) { return !isFigure(row[column]); });
}

std::vector<std::size_t> Table::fittingWidths(std::size_t limit) const {
    std::vector<std::size_t> fitting = widths;
    const auto shorten = [&](bool texts, std::size_t shortest) {
        while (totalWidth(fitting) > limit) {
            std::size_t* widest = nullptr;
            for (std::size_t column = 0; column < fitting.size(); ++column)
                if (isText(column) == texts && fitting[column] > shortest &&
                    (!widest || fitting[column] > *widest))
                    widest = &fitting[column];
            if (!widest) return;
            --*widest;
        }
    };
    shorten(/*texts=*/true, shortestText);
    shorten(/*texts=*/false, shortestFigure);
    return fitting;
}

std::vector<Line> Table::linesWithin(const Terminal& terminal) const {
    const std::vector<std::size_t> fitting = terminal.width == 0 ? widths : fittingWidths(terminal.width);
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
