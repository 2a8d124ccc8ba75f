#pragma once

#include <string>

namespace ctl {

/// Has routerd check a configuration file, as whoever starts it.
/// Returns why it refuses the file, with the line and the key; empty: it does not, or nobody can tell, as
/// without root's rights. The text calls the file `name`.
[[nodiscard]] std::string refusalOf(const std::string& file, const std::string& name);

}  // namespace ctl
