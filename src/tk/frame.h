#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tk/message.h"

namespace tk {

/// The largest frame, without its length.
/// Units: bytes.
constexpr std::size_t frameLimit = std::size_t{16} * 1024 * 1024;
/// The largest frame that the hub takes from a user other than root, without its length.
/// Units: bytes.
constexpr std::size_t memberFrameLimit = std::size_t{1024} * 1024;

/// Appends one message to `out` as a frame: u32 length, little-endian, then the flat message.
/// Errors: false when the message is larger than `limit`, or its receiver would find it malformed; `out` is
/// as before.
[[nodiscard]] bool appendFrame(std::string& out, const message& source, std::size_t limit = frameLimit);

/// Cuts a stream of bytes into messages.
class FrameReader {
public:
    /// What next() found.
    enum class Result : std::uint8_t { message, needMore, malformed, tooLarge };

    /// Takes no frame of more than `limit` bytes.
    explicit FrameReader(std::size_t limit = frameLimit) : limit(limit) {}

    /// Adds received bytes.
    void append(std::string_view bytes);
    /// The next message. After `malformed` and `tooLarge` the peer is to be dropped.
    [[nodiscard]] Result next(message& out);
    /// How much memory unfinished frames take.
    /// Units: bytes.
    std::size_t keptBytes() const;

private:
    std::size_t limit;
    std::string buffer;
    std::size_t start = 0;  // of what was not handed out yet
};

}  // namespace tk
