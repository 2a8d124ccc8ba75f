#include "ctl/json.h"

#include <limits>
#include <optional>
#include <utility>
#include <variant>

#include "ctl/failure.h"
#include "ctl/text.h"
#include "machine/network.h"
#include "net/convert.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace ctl {

namespace {

struct ValueToJson {
    Json operator()(std::uint32_t value) const { return value; }
    Json operator()(bool value) const { return value; }
    Json operator()(const std::string& value) const { return value; }
    Json operator()(tk::Be32 value) const { return gateway::ipToString(value.value); }
    Json operator()(std::uint64_t value) const { return value; }
    Json operator()(const std::vector<std::uint32_t>& values) const { return values; }
    Json operator()(const std::vector<tk::message>& values) const {
        Json list = Json::array();
        for (const tk::message& value : values) list.push_back(fieldsToJson(value));
        return list;
    }
};

tk::message readFields(const Json& fields, unsigned depth);

std::uint64_t readNumber(const Json& value, std::uint64_t limit) {
    std::optional<std::uint64_t> number;
    const bool isNatural =
        value.is_number_unsigned() || (value.is_number_integer() && value.get<std::int64_t>() >= 0);
    if (isNatural && value.get<std::uint64_t>() <= limit) number = value.get<std::uint64_t>();
    if (value.is_string()) number = parseNumber(value.get_ref<const std::string&>(), limit);
    if (!number) throw misuse(lineOf(value) + " is not a number from 0 to " + std::to_string(limit));
    return *number;
}

std::uint32_t readU32(const Json& value) {
    return static_cast<std::uint32_t>(readNumber(value, std::numeric_limits<std::uint32_t>::max()));
}

std::uint32_t readAddress(const Json& value) {
    const auto address = value.is_string() ? machine::parseIPv4(value.get<std::string>()) : std::nullopt;
    if (!address) throw misuse(lineOf(value) + " is not an IPv4 address");
    return *address;
}

std::vector<std::uint32_t> readNumbers(const Json& value) {
    if (!value.is_array()) throw misuse(lineOf(value) + " is not a list of numbers");
    std::vector<std::uint32_t> numbers;
    for (const Json& element : value) numbers.push_back(readU32(element));
    return numbers;
}

std::vector<tk::message> readMessages(const Json& value, unsigned depth) {
    if (!value.is_array()) throw misuse(lineOf(value) + " is not a list of messages");
    if (depth == tk::message::nestingLimit)
        throw misuse("messages may be nested at most " + std::to_string(tk::message::nestingLimit) + " deep");
    std::vector<tk::message> messages;
    for (const Json& element : value) messages.push_back(readFields(element, depth + 1));
    return messages;
}

tk::message::Field::Value readValue(tk::FieldType type, const Json& value, unsigned depth) {
    switch (type) {
        case tk::FieldType::u32:
            return readU32(value);
        case tk::FieldType::boolean:
            if (!value.is_boolean()) throw misuse(lineOf(value) + " is neither true nor false");
            return value.get<bool>();
        case tk::FieldType::string:
            if (!value.is_string()) throw misuse(lineOf(value) + " is not a text");
            return value.get<std::string>();
        case tk::FieldType::be32:
            return tk::Be32{readAddress(value)};
        case tk::FieldType::u64:
            return readNumber(value, std::numeric_limits<std::uint64_t>::max());
        case tk::FieldType::u32Array:
            return readNumbers(value);
        case tk::FieldType::messageArray:
            return readMessages(value, depth);
    }
    throw misuse("unknown type");
}

const Json& member(const Json& object, const char* key) {
    const auto found = object.find(key);
    if (found == object.end()) throw misuse("a field has no \"" + std::string(key) + "\": " + lineOf(object));
    return *found;
}

tk::message readFields(const Json& fields, unsigned depth) {
    if (!fields.is_array()) throw misuse("a message is a list of fields, not " + lineOf(fields));
    tk::message out;
    for (const Json& entry : fields) {
        if (!entry.is_object())
            throw misuse("a field is an object with id, type and value, not " + lineOf(entry));
        const Json& typeText = member(entry, "type");
        const auto type = typeText.is_string() ? typeNamed(typeText.get<std::string>()) : std::nullopt;
        if (!type) throw misuse("unknown type " + lineOf(typeText));
        const std::uint32_t id = readU32(member(entry, "id"));
        if (out.has(id)) throw misuse("field " + hexText(id) + " is given twice");
        out.insert({id, readValue(*type, member(entry, "value"), depth)});
    }
    return out;
}

}  // namespace

Json fieldsToJson(const tk::message& source) {
    Json list = Json::array();
    for (const tk::message::Field& field : source.fields()) {
        Json entry;
        entry["id"] = hexText(field.id);
        entry["type"] = typeName(field.type());
        entry["value"] = std::visit(ValueToJson{}, field.value);
        list.push_back(std::move(entry));
    }
    return list;
}

Json toJson(const tk::message& source) {
    Json object;
    object["kind"] = kindName(tk::kindOf(source));
    object["from"] = source.get_u32_array(tk::field::sender);
    object["to"] = source.get_u32_array(tk::field::destination);
    object["command"] = hexText(source.get_u32(tk::field::command));
    if (const std::uint32_t number = source.get_u32(tk::field::number)) object["number"] = number;
    std::uint32_t code = 0;
    std::string text;
    if (tk::isError(source, &code, &text)) {
        object["code"] = hexText(code);
        object["text"] = text;
    }
    object["fields"] = fieldsToJson(source);
    return object;
}

tk::message fieldsFromJson(const Json& fields) {
    return readFields(fields, 1);
}

std::string lineOf(const Json& value) {
    return value.dump(-1, ' ', /*ensure_ascii=*/true, Json::error_handler_t::replace);
}

}  // namespace ctl
