#include "ctl/typenames.h"

namespace ctl {

namespace {

struct TypeName {
    tk::FieldType type;
    std::string_view name;
};

constexpr TypeName typeNames[] = {
    {tk::FieldType::u32, "u32"},
    {tk::FieldType::boolean, "bool"},
    {tk::FieldType::string, "string"},
    {tk::FieldType::be32, "be32"},
    {tk::FieldType::u64, "u64"},
    {tk::FieldType::u32Array, "u32[]"},
    {tk::FieldType::messageArray, "message[]"},
};

}  // namespace

std::string_view typeName(tk::FieldType type) {
    for (const TypeName& entry : typeNames)
        if (entry.type == type) return entry.name;
    return {};
}

std::optional<tk::FieldType> typeNamed(std::string_view name) {
    for (const TypeName& entry : typeNames)
        if (entry.name == name) return entry.type;
    return std::nullopt;
}

std::string_view kindName(tk::Kind kind) {
    switch (kind) {
        case tk::Kind::request:
            return "request";
        case tk::Kind::reply:
            return "reply";
        case tk::Kind::error:
            return "error";
        case tk::Kind::notification:
            return "notification";
    }
    return {};
}

}  // namespace ctl
