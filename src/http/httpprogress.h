#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gateway {

/// Reads the framing of a message whose text may still grow: the title, the headers, where the body begins,
/// and whether all of it is there. It looks at nothing twice.
///
/// A line ends at its CR; the next byte is taken for the LF unseen. The value of a header begins after the
/// blanks that follow the colon. Tabs, and white space at its end, are part of it.
class HTTPProgress {
public:
    enum class State : std::uint8_t {
        needMore,  // not complete yet
        complete,  // no CONTENT-LENGTH, or exactly the bytes of body that the first one states
        never,     // no further byte can complete it: a header has no colon, or the body is too long
    };

    /// Looks at what was appended since the last call. `buffer` is everything received so far; it begins with
    /// what the last call got.
    [[nodiscard]] State look(std::string_view buffer);

    /// One part of a message.
    /// Lifetime: as long as the text from which it was read.
    struct Part {
        enum class Kind : std::uint8_t { none, title, header, body };

        Kind kind = Kind::none;
        std::string_view name = {};  // of a header, as written
        std::string_view text = {};  // the title, a header's value, or the body so far
    };

    /// The next part that has arrived whole; none when there is no more, or not yet. The body is given as far
    /// as it has arrived. `buffer` is as above.
    Part next(std::string_view buffer);

private:
    enum class Phase : std::uint8_t { title, lineStart, line, body, broken };

    Part finishLine(std::string_view buffer);
    Part takeHeader(std::string_view line, std::size_t nameLength);
    State judgeBody(std::size_t received) const;

    Phase phase = Phase::title;
    std::size_t scanned = 0;                     // bytes that have been searched
    std::size_t lineStart = 0;                   // of the current line
    std::size_t colon = std::string_view::npos;  // the first one in that line, once found
    bool hasLength = false;                      // true when CONTENT-LENGTH was seen; later ones are ignored
    std::uint32_t bodyLength = 0;
};

}  // namespace gateway
