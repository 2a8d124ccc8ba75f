// The flat form of messages. See message.h for the contract.

#include "tk/message.h"

#include <bit>
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

/// Reads values from the front of a text. Each read returns false when the text is too short.
class Reader {
public:
    Reader(std::string_view text, unsigned depth) : rest(text), depth(depth) {}

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
    [[nodiscard]] bool readValue(std::uint32_t id, FieldType type, message& out);
    [[nodiscard]] bool readBool(std::uint32_t id, message& out);
    [[nodiscard]] bool readString(std::uint32_t id, message& out);
    [[nodiscard]] bool readBe32(std::uint32_t id, message& out);
    [[nodiscard]] bool readNumbers(std::uint32_t id, message& out);
    [[nodiscard]] bool readMessages(std::uint32_t id, message& out);

    std::string_view rest;
    unsigned depth;
};

bool Reader::readMessage(message& out) {
    if (depth <= deepestWithRoom) out.reserve(rest.size() / usualFieldSize);
    while (!rest.empty()) {
        std::uint32_t id = 0;
        std::uint8_t type = 0;
        if (!integer(id) || !integer(type) || out.has(id)) return false;
        if (out.fields().size() == message::fieldLimit) return false;
        if (!readValue(id, static_cast<FieldType>(type), out)) return false;
    }
    return true;
}

bool Reader::readValue(std::uint32_t id, FieldType type, message& out) {
    switch (type) {
        case FieldType::u32:
            return integer(out.get_u32_ref(id));
        case FieldType::boolean:
            return readBool(id, out);
        case FieldType::string:
            return readString(id, out);
        case FieldType::be32:
            return readBe32(id, out);
        case FieldType::u64:
            return integer(out.get_u64_ref(id));
        case FieldType::u32Array:
            return readNumbers(id, out);
        case FieldType::messageArray:
            return readMessages(id, out);
    }
    return false;  // a number from the wire that is no type
}

bool Reader::readBool(std::uint32_t id, message& out) {
    std::uint8_t value = 0;
    if (!integer(value) || value > 1) return false;
    out.insert_bool(id, value == 1);
    return true;
}

bool Reader::readString(std::uint32_t id, message& out) {
    std::string_view value;
    if (!bytes(value)) return false;
    out.insert_string(id, std::string(value));
    return true;
}

bool Reader::readBe32(std::uint32_t id, message& out) {
    std::uint32_t value = 0;
    if (rest.size() < sizeof value) return false;
    std::memcpy(&value, rest.data(), sizeof value);
    rest.remove_prefix(sizeof value);
    out.insert_be32(id, value);
    return true;
}

bool Reader::readNumbers(std::uint32_t id, message& out) {
    std::uint32_t count = 0;
    if (!integer(count) || rest.size() / sizeof count < count) return false;
    std::vector<std::uint32_t> values(count);
    for (std::uint32_t& value : values)
        if (!integer(value)) return false;
    out.insert_u32_array(id, std::move(values));
    return true;
}

bool Reader::readMessages(std::uint32_t id, message& out) {
    std::uint32_t count = 0;
    // Each message takes at least its length field: a count too large for the text must not reserve memory.
    if (!integer(count) || rest.size() / sizeof count < count ||
        (count > 0 && depth == message::nestingLimit))
        return false;
    std::vector<message> values(count);
    for (message& value : values) {
        std::string_view flat;
        if (!bytes(flat) || !Reader(flat, depth + 1).readMessage(value)) return false;
    }
    out.insert_message_array(id, std::move(values));
    return true;
}

}  // namespace

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
