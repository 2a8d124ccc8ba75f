#pragma once

#include <string>
#include <string_view>

namespace resolver {

/// True when `text` is a host name: labels of letters, digits and inner hyphens, 1 to 63 bytes each, with
/// dots between them, at most 253 bytes in all. One trailing dot is allowed; it keeps the search domains out.
/// False for an address: the last label of a name is never a number.
/// Protocol: RFC 1123, 2.1.
[[nodiscard]] bool isHostName(std::string_view text);

/// The name in lower case: case is the only difference between spellings of a name.
[[nodiscard]] std::string lowerCase(std::string_view name);

}  // namespace resolver
