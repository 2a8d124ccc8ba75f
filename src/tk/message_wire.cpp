// The flat form of messages. See message.h for the contract.

#include "tk/message.h"

#include <algorithm>
#include <cstring>

namespace tk {

namespace {

// Units: bytes. Most fields take 6 to 9, some far more.
constexpr std::size_t usualFieldSize = 10;
// A list of records is one level deep. What is nested further has its bytes counted by every level around it: to
// make room there, too, would let a few bytes take up a hundred times their size.
constexpr unsigned deepestWithRoom = 1;

template <typename T>
void putInteger(std::string& out, T value) {
    for (std::size_t i = 0; i < sizeof value; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
}

void writeMessage(std::string& out, const message& source);

struct ValueWriter {
    std::string& out;

    void operator()(std::uint32_t value) const { putInteger(out, value); }
    void operator()(bool value) const { out.push_back(value ? 1 : 0); }
    void operator()(const std::string& value) const {
        putInteger(out, static_cast<std::uint32_t>(value.size()));
        out += value;
    }
    void operator()(Be32 value) const {
        char bytes[sizeof value.value];
        std::memcpy(bytes, &value.value, sizeof bytes);  // already in network order
        out.append(bytes, sizeof bytes);
    }
    void operator()(std::uint64_t value) const { putInteger(out, value); }
    void operator()(const std::vector<std::uint32_t>& values) const {
        putInteger(out, static_cast<std::uint32_t>(values.size()));
        for (std::uint32_t value : values) putInteger(out, value);
    }
    void operator()(const std::vector<message>& values) const {
        putInteger(out, static_cast<std::uint32_t>(values.size()));
        for (const message& value : values) {
            const std::size_t lengthAt = out.size();
            putInteger(out, std::uint32_t{0});
            writeMessage(out, value);
            std::string length;
            putInteger(length, static_cast<std::uint32_t>(out.size() - lengthAt - sizeof(std::uint32_t)));
            out.replace(lengthAt, length.size(), length);
        }
    }
};

void writeMessage(std::string& out, const message& source) {
    for (const message::Field& field : source.fields()) {
        putInteger(out, field.id);
        out.push_back(static_cast<char>(field.type()));
        std::visit(ValueWriter{out}, field.value);
    }
}

bool fits(const message& source, unsigned depth) {
    if (source.fields().size() > message::fieldLimit) return false;
    for (const message::Field& field : source.fields()) {
        const auto* inner = std::get_if<std::vector<message>>(&field.value);
        if (!inner || inner->empty()) continue;
        if (depth == message::nestingLimit) return false;
        for (const message& value : *inner)
            if (!fits(value, depth + 1)) return false;
    }
    return true;
}

/// True when an id stands twice. Foreign frames may hold many messages of many fields in any order: to look for each
/// field among those before it would take far longer than all the rest of the reading.
bool hasRepeatedId(const std::vector<message::Field>& fields) {
    const auto outOfOrder = [](const message::Field& one, const message::Field& next) {
        return next.id <= one.id;
    };
    if (std::adjacent_find(fields.begin(), fields.end(), outOfOrder) == fields.end()) return false;
    std::vector<std::uint32_t> ids;
    ids.reserve(fields.size());
    for (const message::Field& field : fields) ids.push_back(field.id);
    std::sort(ids.begin(), ids.end());
    return std::adjacent_find(ids.begin(), ids.end()) != ids.end();
}

}  // namespace

/// Reads values from the front of a text. Each read returns false when the text is too short.
class message::Reader {
public:
    Reader(std::string_view text, unsigned depth) : rest(text), depth(depth) {}

    /// Appends the fields of the whole text to `out`, which is empty.
    [[nodiscard]] bool readMessage(message& out);

private:
    template <typename T>
    [[nodiscard]] bool integer(T& value) {
        if (rest.size() < sizeof value) return false;
        value = 0;
        for (std::size_t i = 0; i < sizeof value; ++i)
            value = static_cast<T>(value | static_cast<T>(static_cast<unsigned char>(rest[i])) << (8 * i));
        rest.remove_prefix(sizeof value);
        return true;
    }
    [[nodiscard]] bool bytes(std::string_view& value) {
        std::uint32_t length = 0;
        if (!integer(length) || rest.size() < length) return false;
        value = rest.substr(0, length);
        rest.remove_prefix(length);
        return true;
    }
    [[nodiscard]] bool readField(Field& out);
    [[nodiscard]] bool readBool(bool& out);
    [[nodiscard]] bool readString(std::string& out);
    [[nodiscard]] bool readBe32(Be32& out);
    [[nodiscard]] bool readNumbers(std::vector<std::uint32_t>& out);
    [[nodiscard]] bool readMessages(std::vector<message>& out);

    std::string_view rest;
    unsigned depth;
};

bool message::Reader::readMessage(message& out) {
    if (depth <= deepestWithRoom) out.reserve(rest.size() / usualFieldSize);
    while (!rest.empty())
        if (out.content.size() == fieldLimit || !readField(out.content.emplace_back())) return false;
    return !hasRepeatedId(out.content);
}

bool message::Reader::readField(Field& out) {
    std::uint8_t type = 0;
    if (!integer(out.id) || !integer(type)) return false;
    switch (static_cast<FieldType>(type)) {
        case FieldType::u32:
            return integer(out.value.emplace<std::uint32_t>());
        case FieldType::boolean:
            return readBool(out.value.emplace<bool>());
        case FieldType::string:
            return readString(out.value.emplace<std::string>());
        case FieldType::be32:
            return readBe32(out.value.emplace<Be32>());
        case FieldType::u64:
            return integer(out.value.emplace<std::uint64_t>());
        case FieldType::u32Array:
            return readNumbers(out.value.emplace<std::vector<std::uint32_t>>());
        case FieldType::messageArray:
            return readMessages(out.value.emplace<std::vector<message>>());
    }
    return false;  // a number from the wire that is no type
}

bool message::Reader::readBool(bool& out) {
    std::uint8_t value = 0;
    if (!integer(value) || value > 1) return false;
    out = value == 1;
    return true;
}

bool message::Reader::readString(std::string& out) {
    std::string_view value;
    if (!bytes(value)) return false;
    out = std::string(value);  // with no more room than it needs
    return true;
}

bool message::Reader::readBe32(Be32& out) {
    if (rest.size() < sizeof out.value) return false;
    std::memcpy(&out.value, rest.data(), sizeof out.value);
    rest.remove_prefix(sizeof out.value);
    return true;
}

bool message::Reader::readNumbers(std::vector<std::uint32_t>& out) {
    std::uint32_t count = 0;
    if (!integer(count) || rest.size() / sizeof count < count) return false;
    out.resize(count);
    for (std::uint32_t& value : out)
        if (!integer(value)) return false;
    return true;
}

bool message::Reader::readMessages(std::vector<message>& out) {
    std::uint32_t count = 0;
    // Each message takes at least its length field: a count too large for the text must not reserve memory.
    if (!integer(count) || rest.size() / sizeof count < count || (count > 0 && depth == nestingLimit))
        return false;
    out.resize(count);
    for (message& value : out) {
        std::string_view flat;
        if (!bytes(flat) || !Reader(flat, depth + 1).readMessage(value)) return false;
    }
    return true;
}

bool message::parse(std::string_view flat, message& out) {
    out.content.clear();
    if (Reader(flat, 0).readMessage(out)) return true;
    out.content.clear();
    return false;
}

bool message::isParsable() const {
    return fits(*this, 0);
}

void message::serialiseTo(std::string& out) const {
    writeMessage(out, *this);
}

std::string message::serialise() const {
    std::string out;
    serialiseTo(out);
    return out;
}

}  // namespace tk
