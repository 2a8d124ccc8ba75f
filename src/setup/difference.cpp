#include "setup/difference.h"

#include <algorithm>
#include <cstddef>
#include <iterator>
#include <string_view>
#include <vector>

namespace setup {

namespace {

constexpr std::size_t around = 3;

using Lines = std::vector<std::string_view>;  // without their ends

/// One line of the difference: common (' '), only before ('-') or only after ('+').
struct Step {
    char kind;
    std::string_view line;
};

Lines linesOf(std::string_view text) {
    Lines lines;
    while (!text.empty()) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        lines.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return lines;
}

/// The lengths of the longest common subsequences of what follows each pair of lines.
std::vector<std::vector<std::size_t>> commonLengths(const Lines& from, const Lines& to) {
    std::vector<std::vector<std::size_t>> lengths(from.size() + 1, std::vector<std::size_t>(to.size() + 1));
    for (std::size_t i = from.size(); i-- > 0;)
        for (std::size_t j = to.size(); j-- > 0;)
            lengths[i][j] =
                from[i] == to[j] ? lengths[i + 1][j + 1] + 1 : std::max(lengths[i + 1][j], lengths[i][j + 1]);
    return lengths;
}

std::vector<Step> stepsBetween(const Lines& from, const Lines& to) {
    const auto lengths = commonLengths(from, to);
    std::vector<Step> steps;
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < from.size() || j < to.size()) {
        if (i < from.size() && j < to.size() && from[i] == to[j]) {
            steps.push_back({' ', from[i++]});
            ++j;
        } else if (i < from.size() && (j == to.size() || lengths[i + 1][j] >= lengths[i][j + 1])) {
            steps.push_back({'-', from[i++]});
        } else {
            steps.push_back({'+', to[j++]});
        }
    }
    return steps;
}

/// A change is small beside its file: what is the same before and after it takes no part in the search.
std::vector<Step> stepsOf(const Lines& from, const Lines& to) {
    const auto [left, right] = std::mismatch(from.begin(), from.end(), to.begin(), to.end());
    const auto [leftEnd, rightEnd] = std::mismatch(from.rbegin(), std::make_reverse_iterator(left),
                                                   to.rbegin(), std::make_reverse_iterator(right));
    std::vector<Step> steps;
    const auto keep = [&steps](std::string_view line) { steps.push_back({' ', line}); };
    std::for_each(from.begin(), left, keep);
    for (const Step& step : stepsBetween({left, leftEnd.base()}, {right, rightEnd.base()}))
        steps.push_back(step);
    std::for_each(leftEnd.base(), from.end(), keep);
    return steps;
}

/// "12,3": the first line and the number of lines; the line before when there are none.
std::string rangeText(std::size_t passed, std::size_t count) {
    return std::to_string(count == 0 ? passed : passed + 1) + ',' + std::to_string(count);
}

/// The end of the group of changes that begins at `begin`: no two changes in it are far from each other.
std::size_t groupEnd(const std::vector<Step>& steps, std::size_t begin) {
    std::size_t end = begin;
    for (std::size_t i = begin; i < steps.size() && i <= end + 2 * around; ++i)
        if (steps[i].kind != ' ') end = i;
    return end + 1;
}

std::size_t countOf(const std::vector<Step>& steps, std::size_t begin, std::size_t end, char without) {
    return static_cast<std::size_t>(std::count_if(
        steps.begin() + static_cast<std::ptrdiff_t>(begin), steps.begin() + static_cast<std::ptrdiff_t>(end),
        [without](const Step& step) { return step.kind != without; }));
}

}  // namespace

std::string difference(const std::string& from, const std::string& to, const std::string& before,
                       const std::string& after) {
    if (from == to) return {};
    const std::vector<Step> steps = stepsOf(linesOf(from), linesOf(to));
    std::string text = "--- " + before + "\n+++ " + after + '\n';
    for (std::size_t i = 0; i < steps.size(); ++i) {
        if (steps[i].kind == ' ') continue;
        const std::size_t begin = i - std::min(i, around);
        const std::size_t end = groupEnd(steps, i);
        const std::size_t last = std::min(end + around, steps.size());
        text += "@@ -" + rangeText(countOf(steps, 0, begin, '+'), countOf(steps, begin, last, '+')) + " +" +
                rangeText(countOf(steps, 0, begin, '-'), countOf(steps, begin, last, '-')) + " @@\n";
        for (std::size_t line = begin; line < last; ++line) {
            text += steps[line].kind;
            text.append(steps[line].line) += '\n';
        }
        i = end - 1;
    }
    return text;
}

}  // namespace setup
