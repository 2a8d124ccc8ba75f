#pragma once

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <set>
#include <string>
#include <string_view>
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

    /// Never shortens the column with a heading.
    void keepWhole(const std::string& heading);

    /// Breaks the cells of the last column into further lines, where they would be shortened else.
    void wrapLast() { wrapsLast = true; }

    /// Removes the columns with the headings, one after another, until the rest fits the terminal when only
    /// texts are shortened.
    void dropToFit(const Terminal& terminal, std::initializer_list<std::string_view> headings);

    /// How many rows there are below the headings.
    std::size_t rowCount() const { return rows.size() - 1; }

    /// The whole table, with an end to each line.
    [[nodiscard]] std::string text() const { return textWithin(Terminal{}); }
    /// The same for a reader. Where it is wider than a terminal, the widest columns are shortened: those of
    /// texts first, and those of figures, such as numbers and addresses, only after them.
    [[nodiscard]] std::string textWithin(const Terminal& terminal) const;
    /// The same as lines, the first of which has the headings.
    [[nodiscard]] std::vector<Line> linesWithin(const Terminal& terminal) const;

private:
    void append(Row cells);
    void addLines(const Row& row, const std::vector<std::size_t>& fitting, const Terminal& terminal,
                  std::vector<Line>& lines) const;
    enum class Kind { text, figure, whole, wrapped };
    [[nodiscard]] Kind kindOf(std::size_t column) const;
    /// The columns' widths when texts are shortened, and figures too if that is not enough.
    struct Shortening {
        std::vector<std::size_t> widths;
        bool isFiguresToo = false;
    };
    [[nodiscard]] Shortening shortenedTo(std::size_t limit) const;
    void drop(std::size_t column);

    std::vector<Row> rows;
    std::vector<std::size_t> widths;
    std::set<std::string, std::less<>> whole;  // headings
    bool wrapsLast = false;
};

}  // namespace ctl
