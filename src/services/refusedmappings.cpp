#include "services/refusedmappings.h"

#include <algorithm>
#include <cstdint>
#include <map>
#include <string_view>
#include <utility>

#include "tk/characters.h"

namespace gateway {

namespace {

/// True when the two differ at most in their times and counts.
bool isRepetition(contract::MappingRefusal first, const contract::MappingRefusal& second) {
    first.time = second.time;
    first.count = second.count;
    return first == second;
}

}  // namespace

void RefusedMappings::add(contract::MappingRefusal refusal) {
    std::string_view reason = refusal.reason;
    refusal.reason = tk::takePrintable(reason, contract::refusalReasonLength);
    if (!refusals.empty() && isRepetition(refusals.back(), refusal)) {
        refusals.back().time = refusal.time;
        ++refusals.back().count;
        return;
    }
    refusals.push_back(std::move(refusal));
    if (refusals.size() > contract::refusalLimit) dropOne();
}

/// Makes room at the cost of the control point that was refused most often: it does not push out what others
/// were refused.
void RefusedMappings::dropOne() {
    std::map<std::uint32_t, std::size_t> counts;
    for (const contract::MappingRefusal& each : refusals) ++counts[each.requester];
    const auto oldest =
        std::max_element(refusals.begin(), refusals.end(), [&counts](const auto& one, const auto& other) {
            return counts[one.requester] < counts[other.requester];
        });
    refusals.erase(oldest);  // the first of equals, and so that requester's oldest
}

}  // namespace gateway
