#pragma once

#include <string>

#include "tk/message.h"

namespace ctl {

/// The message that a notification of the hub's trace carries. Errors: null for anything else.
/// Lifetime: that of `received`.
[[nodiscard]] const tk::message* tracedMessage(const tk::message& received);

/// A message as one line for people: kind, from, to, command, number, an error's code and text, its own
/// fields.
[[nodiscard]] std::string traceText(const tk::message& traced);

}  // namespace ctl
