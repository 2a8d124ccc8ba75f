#pragma once

#include <optional>
#include <string_view>

#include "tk/bus.h"
#include "tk/message.h"

namespace ctl {

/// "u32", "bool", "string", "be32", "u64", "u32[]" or "message[]".
[[nodiscard]] std::string_view typeName(tk::FieldType type);

/// The type of such a name. Errors: none for any other.
[[nodiscard]] std::optional<tk::FieldType> typeNamed(std::string_view name);

/// "request", "reply", "error" or "notification".
[[nodiscard]] std::string_view kindName(tk::Kind kind);

}  // namespace ctl
