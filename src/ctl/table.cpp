#include "ctl/table.h"

#include <algorithm>
#include <cassert>
#include <utility>

#include "ctl/text.h"
#include "tk/characters.h"

namespace ctl {

namespace {

constexpr std::size_t columnGap = 2;

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

std::string Table::text() const {
    std::string out;
    for (const Row& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            out += row[column];
            if (column + 1 == row.size()) break;  // no trailing blanks
            out.append(widths[column] + columnGap - displayWidth(row[column]), ' ');
        }
        out += '\n';
    }
    return out;
}

}  // namespace ctl
