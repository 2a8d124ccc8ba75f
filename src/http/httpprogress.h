#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace gateway {

/// Reads the framing of a message whose text may still grow: the title, the headers, where the body begins,
/// and whether all of it is there. Nothing is looked at twice.
///
/// A line ends at its CR, and the byte after it is taken to be the LF without a look at it. The value of a
/// header begins after the blanks that follow the colon; tabs, and white space at its end, belong to it.
class HTTPProgress {
public:
    enum class State : std::uint8_t {
        needMore,  // not complete yet
        complete,  // without CONTENT-LENGTH, or with just as many bytes of body as the first one says
        never,     // no further byte can make it so: a header has no colon, or the body is too long
    };

    /// Looks at what was appended since the last call. `buffer` is everything received so far, and begins
    /// with what it held at the last call.
    [[nodiscard]] State look(std::string_view buffer);

    /// One part of a message.
    /// Lifetime: as long as the text from which it was read.
    struct Part {
        enum class Kind : std::uint8_t { none, title, header, body };

        Kind kind = Kind::none;
        std::string_view name = {};  // of a header, as it was written
        std::string_view text = {};  // the title, the value of a header, or what is there of the body
    };

    /// The next part that has arrived whole; none when there is no further one, or not yet. The body comes
    /// with what is there of it. `buffer` is as above.
    Part next(std::string_view buffer);

private:
    enum class Phase : std::uint8_t { title, lineStart, line, body, broken };

    Part finishLine(std::string_view buffer);
    Part takeHeader(std::string_view line, std::size_t nameLength);
    State judgeBody(std::size_t received) const;

    Phase phase = Phase::title;
    std::size_t scanned = 0;                     // bytes that no search needs to look at again
    std::size_t lineStart = 0;                   // of the line that is being read
    std::size_t colon = std::string_view::npos;  // the first one in that line, if it came already
    bool hasLength = false;                      // CONTENT-LENGTH was seen; a second one does not count
    std::uint32_t bodyLength = 0;
};

}  // namespace gateway
