#include "hub/restart.h"

#include <algorithm>

namespace router {

void Restart::crashed(bool hadRegistered) {
    if (hadRegistered) nextTicks = firstTicks;
    timer.arm(nextTicks);
    nextTicks = std::min(2 * nextTicks, mostTicks);
}

}  // namespace router
