#pragma once

#include <string>
#include <vector>

#include "tk/message.h"

namespace ctl {

/// Reads one FIELD:TYPE=VALUE, for example "0xFE0001:u32=7".
/// The field is a decimal or hexadecimal number. Values: numbers decimal or hexadecimal, bool yes, no, true,
/// false, 1 or 0, be32 an IPv4 address, u32[] numbers with commas between them, message[] a JSON list of
/// field lists as tkctl prints them.
/// Errors: throws Failure (misuse) that quotes the text and says what is wrong with it.
[[nodiscard]] tk::message::Field parseField(const std::string& text);

/// Reads the fields of one message, in order.
/// Errors: as parseField(); also for a field that is given twice, and for those that the bus itself sets.
[[nodiscard]] tk::message parseFields(const std::vector<std::string>& texts);

/// One field in the same form; strings and message arrays are quoted and bracketed, so that it stays
/// one line.
[[nodiscard]] std::string fieldText(const tk::message::Field& field);

/// The fields of a message but for the routing ones, one a line; the messages of a message array stand
/// indented below it, each behind a dash.
[[nodiscard]] std::string fieldLines(const tk::message& source);

}  // namespace ctl
