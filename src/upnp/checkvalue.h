#pragma once

#include <string>

#include "upnp/variable.h"

/// True when `text` is acceptable as an argument of the variable's type: a text that is allowed, one of "1",
/// "0", "true", "false", "yes" and "no" for a boolean, or a number within the range that is set. A port is
/// below 65536. An empty text is the number 0, and -1 is the largest number.
[[nodiscard]] bool checkValue(const Variable& variable, const std::string& text);
