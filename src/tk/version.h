#pragma once

namespace tk {

/// The version of the project, such as "1.0.0". Every program also carries it in its file, as the bytes
/// "@(#)gateway 1.0.0" and a zero, where it can be read whether or not the program runs.
[[nodiscard]] const char* version();

}  // namespace tk
