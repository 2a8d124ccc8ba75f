#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ctl/terminal.h"

namespace ctl {

/// A table for people: a line of headings, then a line for each row. Each column is as wide as its widest
/// cell. Cells are made printable, so that no text from the network moves the cursor or breaks a line.
class Table {
public:
    using Row = std::vector<std::string>;

    /// A table without rows.
    explicit Table(Row headings);

    /// Appends a row of as many cells as there are headings. An empty cell is shown as "-".
    void add(Row cells);

    /// The whole table, with an end to each line.
    [[nodiscard]] std::string text() const { return textWithin(Terminal{}); }
    /// The same for a reader. Where it is wider than a terminal, the widest columns are shortened: those of
    /// texts first, and those of figures, such as numbers and addresses, only after them.
    [[nodiscard]] std::string textWithin(const Terminal& terminal) const;
    /// The same as lines, the first of which has the headings.
    [[nodiscard]] std::vector<Line> linesWithin(const Terminal& terminal) const;

private:
    void append(Row cells);
    /// The columns' widths on a terminal.
    [[nodiscard]] std::vector<std::size_t> fittingWidths(std::size_t limit) const;
    [[nodiscard]] bool isText(std::size_t column) const;

    std::vector<Row> rows;
    std::vector<std::size_t> widths;
};

}  // namespace ctl
