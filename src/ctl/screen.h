#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "ctl/terminal.h"

namespace ctl {

/// What a terminal shows, and how to change it with few bytes: only cells that differ are written, so that a
/// slow line keeps up, and nothing flickers.
class Screen {
public:
    /// Nothing is known of what the terminal shows.
    explicit Screen(const Terminal& terminal) : terminal(terminal) {}

    /// What turns the last frame into this one; empty when nothing differs. What does not fit is left out.
    /// Lines hold printable text.
    [[nodiscard]] std::string draw(const std::vector<Line>& frame);

    /// The terminal has another size, or shows something else: the next frame is drawn whole.
    void forget(const Terminal& changed);

private:
    /// One column of a row. The second column of a wide character is empty.
    struct Cell {
        std::string text = " ";
        Style style = Style::plain;

        bool operator==(const Cell&) const = default;
    };
    using Row = std::vector<Cell>;

    Row cellsOf(const Line& line) const;
    void drawRow(std::size_t number, const Row& now, std::string& out);
    void write(const Row& row, std::size_t first, std::size_t end, std::string& out);

    Terminal terminal;
    std::vector<Row> shown;
    bool isKnown = false;
};

}  // namespace ctl
