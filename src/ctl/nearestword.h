#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace ctl {

/// The word that somebody may have meant: one that a slip or two turn into what was typed. A slip is a letter
/// too many, too few or wrong, or two letters that changed places.
/// Errors: empty when no word is near.
[[nodiscard]] std::string nearestWord(std::string_view typed, const std::vector<std::string>& words);

}  // namespace ctl
