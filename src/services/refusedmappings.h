#pragma once

#include <deque>

#include "contract/mappings.h"

namespace gateway {

/// The last mappings that control points asked for and did not get. Bounded: the oldest of
/// the control point that has most goes first.
class RefusedMappings {
public:
    /// Keeps a refusal. One that differs from the last only in its time is counted with that one, and gives
    /// it its time.
    void add(contract::MappingRefusal refusal);
    /// All that are kept, the oldest first.
    const std::deque<contract::MappingRefusal>& all() const { return refusals; }

private:
    void dropOne();

    std::deque<contract::MappingRefusal> refusals;
};

}  // namespace gateway
