#include "tk/frame.h"

namespace tk {

namespace {

constexpr std::size_t lengthSize = 4;

std::uint32_t lengthAt(std::string_view bytes) {
    std::uint32_t length = 0;
    for (std::size_t i = 0; i < lengthSize; ++i)
        length |= static_cast<std::uint32_t>(static_cast<unsigned char>(bytes[i])) << (8 * i);
    return length;
}

}  // namespace

bool appendFrame(std::string& out, const message& source, std::size_t limit) {
    if (!source.isParsable()) return false;
    const std::size_t start = out.size();
    out.append(lengthSize, '\0');
    source.serialiseTo(out);
    const std::size_t length = out.size() - start - lengthSize;
    if (length > limit) {
        out.resize(start);
        return false;
    }
    for (std::size_t i = 0; i < lengthSize; ++i) out[start + i] = static_cast<char>(length >> (8 * i));
    return true;
}

void FrameReader::append(std::string_view bytes) {
    buffer.erase(0, start);
    start = 0;
    buffer += bytes;
}

FrameReader::Result FrameReader::next(message& out) {
    const std::string_view rest = std::string_view(buffer).substr(start);
    if (rest.empty()) {
        // Unlike an assignment, this frees the memory that a large frame took.
        std::string().swap(buffer);
        start = 0;
        return Result::needMore;
    }
    if (rest.size() < lengthSize) return Result::needMore;
    const std::uint32_t length = lengthAt(rest);
    if (length > limit) return Result::tooLarge;
    if (rest.size() - lengthSize < length) return Result::needMore;
    if (!message::parse(rest.substr(lengthSize, length), out)) return Result::malformed;
    start += lengthSize + length;
    return Result::message;
}

std::size_t FrameReader::keptBytes() const {
    return buffer.capacity() > std::string().capacity() ? buffer.capacity() : 0;
}

}  // namespace tk
