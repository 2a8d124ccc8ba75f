#pragma once

#include <string>
#include <vector>

#include "tk/message.h"

namespace ctl {

/// Reads one FIELD:TYPE=VALUE, for example "0xFE0001:u32=7". The field is a decimal or hexadecimal number.
/// Values: a number is decimal or hexadecimal; a bool is yes, no, true, false, 1 or 0; a be32 is an IPv4
/// address; a u32[] is numbers separated by commas; a message[] is a JSON list of field lists as tkctl prints
/// them.
/// Errors: throws Failure (misuse), which quotes the text and says what is wrong with it.
[[nodiscard]] tk::message::Field parseField(const std::string& text);

/// Reads the fields of one message, in order.
/// Errors: as parseField(); also for a field that is given twice or that the bus itself sets.
[[nodiscard]] tk::message parseFields(const std::vector<std::string>& texts);

/// One field in the same form. Strings are quoted and message arrays bracketed, so that it stays on one line.
[[nodiscard]] std::string fieldText(const tk::message::Field& field);

/// The fields of a message without the routing ones, one a line. The messages of an array follow it indented,
/// each after a dash.
[[nodiscard]] std::string fieldLines(const tk::message& source);

}  // namespace ctl
