#pragma once

#include <cstddef>
#include <string>
#include <vector>

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
    [[nodiscard]] std::string text() const;

private:
    void append(Row cells);

    std::vector<Row> rows;
    std::vector<std::size_t> widths;
};

}  // namespace ctl
