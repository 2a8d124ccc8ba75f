#include "router/refusallog.h"

#include <utility>

#include "tk/log.h"

namespace router {

void RefusalLog::note(uid_t user, const std::string& why) {
    if (isQuiet) {
        ++untold;
        lastUser = user;
        lastReason = why;
        return;
    }
    isQuiet = true;
    interval.arm(intervalTicks);
    tk::log(area, ": ", one, " of user ", user, " refused: ", why);
}

void RefusalLog::close() {
    interval.disarm();
    isQuiet = false;
    (void)tell();  // no interval follows
}

void RefusalLog::intervalEnds() {
    isQuiet = tell();
    if (isQuiet) interval.arm(intervalTicks);
}

/// False when there was nothing to tell.
bool RefusalLog::tell() {
    const std::size_t count = std::exchange(untold, 0);
    if (count == 0) return false;
    tk::log(area, ": ", count, " more ", many, " refused, the last of user ", lastUser, ": ", lastReason);
    return true;
}

}  // namespace router
