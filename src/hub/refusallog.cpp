#include "hub/refusallog.h"

#include <utility>

#include "tk/log.h"

namespace hub {

void RefusalLog::note(const std::string& event, uid_t user, const std::string& why) {
    if (told >= atOnce) {
        ++untold;
        lastUser = user;
        lastReason = why;
        return;
    }
    if (told++ == 0) interval.arm(intervalTicks);
    tk::log(area, ": ", event, ": ", why);
}

void RefusalLog::close() {
    interval.disarm();
    (void)tell();  // no interval follows
    told = 0;
}

void RefusalLog::intervalEnds() {
    // A line was written, so the events of the next interval are counted, too.
    told = tell() ? atOnce : 0;
    if (told != 0) interval.arm(intervalTicks);
}

/// False when there was nothing to tell.
bool RefusalLog::tell() {
    const std::size_t count = std::exchange(untold, 0);
    if (count == 0) return false;
    tk::log(area, ": ", count, " more ", counted, ", the last of user ", lastUser, ": ", lastReason);
    return true;
}

}  // namespace hub
