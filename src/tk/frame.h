#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tk/message.h"

namespace tk {

/// The largest frame, without its length. Units: bytes.
constexpr std::size_t frameLimit = std::size_t{16} * 1024 * 1024;

/// Appends one message to `out` as a frame: u32 length, little-endian, then the flat message.
/// Errors: false when the message is larger than frameLimit, or when its receiver would take it for
/// malformed; `out` is as before.
[[nodiscard]] bool appendFrame(std::string& out, const message& source);

/// Cuts a stream of bytes into messages.
class FrameReader {
public:
    enum class Result : std::uint8_t { message, needMore, malformed };

    /// Takes received bytes over.
    void append(std::string_view bytes);
    /// The next message. After `malformed` the peer is to be dropped.
    [[nodiscard]] Result next(message& out);

private:
    std::string buffer;
    std::size_t start = 0;  // of what was not handed out yet
};

}  // namespace tk
