#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

/// Follows a message that arrives in pieces: says, as the buffer grows, whether HTTPMessage would find it
/// complete, without a second look at the bytes of an earlier call.
class HTTPProgress {
public:
    enum class State : std::uint8_t {
        needMore,  // not complete yet
        complete,  // HTTPMessage(buffer).complete is true
        never,     // not complete, and no further byte can make it so
    };

    /// Looks at what was appended since the last call. `buffer` is everything received so far, and begins
    /// with what it held at the last call.
    [[nodiscard]] State look(std::string_view buffer);

private:
    enum class Phase : std::uint8_t { title, lineStart, line, body, broken };

    /// Goes on in the buffer as far as the bytes reach. False when more are needed to go on.
    bool advance(std::string_view buffer);
    bool finishLine(std::string_view buffer);
    void takeHeader(std::string_view line, std::size_t nameLength);
    State judgeBody(std::size_t received) const;

    Phase phase = Phase::title;
    std::size_t scanned = 0;                     // bytes that no search needs to look at again
    std::size_t lineStart = 0;                   // of the line that is being read
    std::size_t colon = std::string_view::npos;  // the first one in that line, if it came already
    bool hasLength = false;                      // CONTENT-LENGTH was seen; a second one does not count
    std::uint32_t bodyLength = 0;
};
