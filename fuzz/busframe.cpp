// A stream of bus frames, whole against in pieces: the cuts change nothing. What is read is within the limits of messages,
// is written as the bytes that it was read from, and takes memory in proportion to them. The first byte chooses the limit
// of frames, the second says how many cuts there are, and that many bytes after it say how long each piece is.
#include <algorithm>
#include <string>
#include <variant>
#include <vector>

#include "fuzz/target.h"
#include "tk/frame.h"

namespace {

using tk::FrameReader;
using tk::message;
using Result = FrameReader::Result;

constexpr std::size_t lengthSize = 4;
constexpr std::size_t smallLimit = 64;
// A field of 6 bytes becomes one of 48 in a list that has room for twice as many. For the messages at the two outer levels,
// there may also be room for a field of 48 for each 10 bytes.
constexpr std::size_t growth = 2 * 48 / 6 + 2 * 5;
constexpr std::size_t leastMemory = 1024;

/// What came of a stream.
struct Outcome {
    std::vector<message> messages;
    Result end = Result::needMore;

    bool operator==(const Outcome&) const = default;
};

void readAll(FrameReader& reader, Outcome& out) {
    message next;
    while ((out.end = reader.next(next)) == Result::message) out.messages.push_back(next);
}

void checkLimits(const message& read, unsigned depth) {
    fuzz::require(depth <= message::nestingLimit, "no deeper nesting than allowed");
    fuzz::require(read.fields().size() <= message::fieldLimit, "no more fields than allowed");
    for (const message::Field& field : read.fields())
        if (const auto* list = std::get_if<std::vector<message>>(&field.value))
            for (const message& inner : *list) checkLimits(inner, depth + 1);
}

std::size_t memoryOf(const message& read) {
    std::size_t bytes = read.fields().capacity() * sizeof(message::Field);
    for (const message::Field& field : read.fields()) {
        if (const auto* text = std::get_if<std::string>(&field.value)) bytes += text->capacity();
        if (const auto* list = std::get_if<std::vector<std::uint32_t>>(&field.value))
            bytes += list->capacity() * sizeof(std::uint32_t);
        const auto* list = std::get_if<std::vector<message>>(&field.value);
        if (!list) continue;
        bytes += list->capacity() * sizeof(message);
        for (const message& inner : *list) bytes += memoryOf(inner);
    }
    return bytes;
}

/// Reads the frames of the stream one by one, each from the place where the last one ended.
void checkFrames(std::string_view stream, std::size_t limit) {
    FrameReader reader(limit);
    reader.append(stream);
    for (;;) {
        message read;  // without the room that the last one took
        if (reader.next(read) != Result::message) return;
        std::string frame;
        fuzz::require(tk::appendFrame(frame, read, limit), "what was read can be sent");
        fuzz::require(stream.starts_with(frame), "a message is written as it was read");
        checkLimits(read, 0);
        fuzz::require(memoryOf(read) <= frame.size() * growth + leastMemory,
                      "a message takes memory for its bytes");
        stream.remove_prefix(frame.size());
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) return 0;
    const std::size_t limit = data[0] % 2 == 0 ? tk::memberFrameLimit : smallLimit;
    const std::size_t cutCount = std::min<std::size_t>(data[1] % 32, size - 2);
    const std::string_view lengths = fuzz::text(data + 2, cutCount);
    const std::string_view stream = fuzz::text(data + 2 + cutCount, size - 2 - cutCount);

    FrameReader whole(limit);
    Outcome expected;
    whole.append(stream);
    readAll(whole, expected);

    FrameReader parts(limit);
    Outcome outcome;
    std::string_view left = stream;
    std::size_t largest = 0;
    for (std::size_t i = 0; i <= lengths.size() && outcome.end == Result::needMore; ++i) {
        const std::size_t length = i < lengths.size() ? static_cast<unsigned char>(lengths[i]) : left.size();
        const std::string_view piece = left.substr(0, length);
        left.remove_prefix(piece.size());
        largest = std::max(largest, piece.size());
        parts.append(piece);
        readAll(parts, outcome);
        fuzz::require(parts.keptBytes() <= 2 * (limit + lengthSize + largest),
                      "only a frame and a piece are kept");
    }
    fuzz::require(outcome == expected, "the same messages and the same end, however they arrive");
    checkFrames(stream, limit);
    return 0;
}
