#pragma once

#include <string>

namespace setup {

/// What leads from one text to another, as a unified difference with three lines around each change; empty
/// when they are equal.
/// `before`, `after`: what the two are called in the heading.
[[nodiscard]] std::string difference(const std::string& from, const std::string& to,
                                     const std::string& before, const std::string& after);

}  // namespace setup
