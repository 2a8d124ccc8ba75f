#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "tk/message.h"

namespace ctl {

/// Keys keep the order in which they are set, so that scripts and people always see the same order.
using Json = nlohmann::ordered_json;

/// A message as one object: kind, from, to, command, number (of requests and their ends), code and text (of
/// errors), and all fields in wire order, including the routing ones.
[[nodiscard]] Json toJson(const tk::message& source);

/// The fields of a message in wire order: a list of objects with id, type and value.
[[nodiscard]] Json fieldsToJson(const tk::message& source);

/// The reverse of fieldsToJson(). Ids and numbers may also be decimal or hexadecimal texts.
/// Errors: throws Failure (misuse), which says what is wrong.
[[nodiscard]] tk::message fieldsFromJson(const Json& fields);

/// One line in ASCII, without its line end. Other characters are escaped, and bytes that are not UTF-8 become
/// U+FFFD.
[[nodiscard]] std::string lineOf(const Json& value);

}  // namespace ctl
