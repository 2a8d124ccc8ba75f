#pragma once

#include <string>

namespace ctl {

/// Has routerd check a configuration file, as it would at its start.
/// Returns why it refuses the file, with the line and the key; empty: it does not, or no routerd is installed
/// that could tell. The text calls the file `name`.
[[nodiscard]] std::string refusalOf(const std::string& file, const std::string& name);

}  // namespace ctl
