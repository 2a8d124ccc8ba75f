#include "services/refusedmappings.h"

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
    if (refusals.size() == contract::refusalLimit) refusals.pop_front();
    refusals.push_back(std::move(refusal));
}

}  // namespace gateway
