#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "tk/message.h"

namespace ctl {

/// Keys stay in the order in which they are set: scripts and people see the same order each time.
using Json = nlohmann::ordered_json;

/// A message as one object: kind, from, to, command, number (of requests and their ends), code and text (of
/// errors), and all its fields in wire order, the routing ones included.
[[nodiscard]] Json toJson(const tk::message& source);

/// The fields of a message in wire order: a list of objects with id, type and value.
[[nodiscard]] Json fieldsToJson(const tk::message& source);

/// The reverse of fieldsToJson. Ids and numbers may be decimal or hexadecimal texts as well.
/// Errors: throws Failure (misuse) that says what is wrong.
[[nodiscard]] tk::message fieldsFromJson(const Json& fields);

/// One line without its end, in ASCII: everything else is escaped, bytes that are no UTF-8 become U+FFFD.
[[nodiscard]] std::string lineOf(const Json& value);

}  // namespace ctl
