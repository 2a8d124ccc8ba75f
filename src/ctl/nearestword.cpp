#include "ctl/nearestword.h"

#include <algorithm>
#include <cstddef>

namespace ctl {

namespace {

/// How many slips lead from one word to another.
std::size_t slipsBetween(std::string_view from, std::string_view to) {
    std::vector<std::vector<std::size_t>> slips(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = 0; i <= from.size(); ++i)
        for (std::size_t j = 0; j <= to.size(); ++j) {
            if (i == 0 || j == 0) {
                slips[i][j] = i + j;
                continue;
            }
            const std::size_t wrong = from[i - 1] == to[j - 1] ? 0 : 1;
            slips[i][j] = std::min({slips[i - 1][j] + 1, slips[i][j - 1] + 1, slips[i - 1][j - 1] + wrong});
            const bool changedPlaces = i > 1 && j > 1 && from[i - 1] == to[j - 2] && from[i - 2] == to[j - 1];
            if (changedPlaces) slips[i][j] = std::min(slips[i][j], slips[i - 2][j - 2] + 1);
        }
    return slips[from.size()][to.size()];
}

}  // namespace

std::string nearestWord(std::string_view typed, const std::vector<std::string>& words) {
    constexpr std::size_t longest = 64;  // of a word that somebody types
    if (typed.size() > longest) return {};
    std::string nearest;
    std::size_t fewest = 3;
    for (const std::string& word : words) {
        const std::size_t slips = slipsBetween(typed, word);
        // Short words are all near each other.
        if (slips >= fewest || slips * 2 > word.size()) continue;
        fewest = slips;
        nearest = word;
    }
    return nearest;
}

}  // namespace ctl
