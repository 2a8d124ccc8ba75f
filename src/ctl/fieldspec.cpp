#include "ctl/fieldspec.h"

#include <limits>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>

#include "ctl/failure.h"
#include "ctl/json.h"
#include "ctl/text.h"
#include "machine/network.h"
#include "net/convert.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace ctl {

namespace {

using Value = tk::message::Field::Value;

template <typename Parsed>
Parsed orRefuse(std::optional<Parsed> parsed, const char* expectation) {
    if (!parsed) throw misuse(expectation);
    return *std::move(parsed);
}

bool parseBool(const std::string& text) {
    if (text == "yes" || text == "true" || text == "1") return true;
    if (text == "no" || text == "false" || text == "0") return false;
    throw misuse("a bool is yes, no, true, false, 1 or 0");
}

std::vector<tk::message> parseMessages(const std::string& text) {
    const Json list = Json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!list.is_array())
        throw misuse("a message[] is a JSON list such as [[{\"id\":\"0x1\",\"type\":\"u32\",\"value\":5}]]");
    std::vector<tk::message> messages;
    for (const Json& fields : list) messages.push_back(fieldsFromJson(fields));
    return messages;
}

Value parseValue(tk::FieldType type, const std::string& text) {
    switch (type) {
        case tk::FieldType::u32:
            return orRefuse(parseU32(text), "a u32 is a number from 0 to 4294967295");
        case tk::FieldType::boolean:
            return parseBool(text);
        case tk::FieldType::string:
            return text;
        case tk::FieldType::be32:
            return tk::Be32{
                orRefuse(machine::parseIPv4(text), "a be32 is an IPv4 address such as 192.0.2.1")};
        case tk::FieldType::u64:
            return orRefuse(parseNumber(text, std::numeric_limits<std::uint64_t>::max()),
                            "a u64 is a number from 0 to 18446744073709551615");
        case tk::FieldType::u32Array:
            if (text.empty()) return std::vector<std::uint32_t>();
            return orRefuse(parsePath(text), "a u32[] is numbers with commas between them");
        case tk::FieldType::messageArray:
            return parseMessages(text);
    }
    throw misuse("unknown type");
}

tk::message::Field parseParts(const std::string& text) {
    const std::size_t equals = text.find('=');
    const std::size_t colon = text.substr(0, equals).find(':');
    if (equals == std::string::npos || colon == std::string::npos) throw misuse("expected FIELD:TYPE=VALUE");
    const auto id = orRefuse(parseU32(text.substr(0, colon)), "the field is a number such as 1 or 0xFE0001");
    const auto type = orRefuse(typeNamed(text.substr(colon + 1, equals - colon - 1)),
                               "the type is u32, bool, string, be32, u64, u32[] or message[]");
    return {id, parseValue(type, text.substr(equals + 1))};
}

bool isRouting(std::uint32_t id) {
    for (const std::uint32_t routing :
         {tk::field::destination, tk::field::sender, tk::field::number, tk::field::kind, tk::field::command})
        if (id == routing) return true;
    return false;
}

/// All values on one line, as they follow FIELD:TYPE=.
struct ValueText {
    std::string operator()(std::uint32_t value) const { return std::to_string(value); }
    std::string operator()(bool value) const { return value ? "true" : "false"; }
    std::string operator()(const std::string& value) const { return lineOf(value); }
    std::string operator()(tk::Be32 value) const { return gateway::ipToString(value.value); }
    std::string operator()(std::uint64_t value) const { return std::to_string(value); }
    std::string operator()(const std::vector<std::uint32_t>& values) const { return pathText(values); }
    std::string operator()(const std::vector<tk::message>& values) const {
        std::string text = "[";
        for (const tk::message& value : values) {
            text += text.size() > 1 ? " {" : "{";
            const char* gap = "";
            for (const tk::message::Field& field : value.fields())
                text += std::exchange(gap, " ") + fieldText(field);
            text += '}';
        }
        return text + ']';
    }
};

std::string headOf(const tk::message::Field& field) {
    return hexText(field.id) + ':' + std::string(typeName(field.type()));
}

void appendLines(std::string& out, const tk::message& source, const std::string& indent, std::string lead) {
    for (const tk::message::Field& field : source.fields()) {
        const auto* messages = std::get_if<std::vector<tk::message>>(&field.value);
        out += std::exchange(lead, indent) + (messages ? headOf(field) : fieldText(field)) + '\n';
        if (!messages) continue;
        for (const tk::message& nested : *messages)
            appendLines(out, nested, indent + "    ", indent + "  - ");
    }
    if (source.empty()) out += lead + "(empty)\n";
}

}  // namespace

tk::message::Field parseField(const std::string& text) {
    try {
        return parseParts(text);
    } catch (const Failure& failure) {
        throw misuse("'" + text + "': " + failure.what());
    }
}

tk::message parseFields(const std::vector<std::string>& texts) {
    tk::message out;
    for (const std::string& text : texts) {
        const tk::message::Field field = parseField(text);
        if (isRouting(field.id)) throw misuse("'" + text + "': the bus sets this field itself");
        if (out.has(field.id)) throw misuse("'" + text + "': the field is given twice");
        out.insert(field);
    }
    return out;
}

std::string fieldText(const tk::message::Field& field) {
    return headOf(field) + '=' + std::visit(ValueText{}, field.value);
}

std::string fieldLines(const tk::message& source) {
    std::string out;
    const tk::message own = tk::withoutRouting(source);
    if (!own.empty()) appendLines(out, own, "", "");
    return out;
}

}  // namespace ctl
