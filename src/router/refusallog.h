#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/timer.h"

namespace router {

/// Tells the log of connections that are turned away, or of other things of users: of the first one at once,
/// and once a minute how many there were since. So nobody can fill the log by asking for them.
class RefusalLog {
public:
    static constexpr std::uint32_t intervalTicks = 6000;  // 1 min

    /// `area` begins each line; `one` and `many` name what is refused. Lifetime: literals.
    explicit RefusalLog(const char* area = "bus", const char* one = "connection",
                        const char* many = "connections")
        : area(area), one(one), many(many) {}

    /// A connection of `user` is turned away for this reason.
    void note(uid_t user, const std::string& why);
    /// Tells what is left to tell. Call while the loop still exists.
    void close();

private:
    void intervalEnds();
    [[nodiscard]] bool tell();

    const char* area;
    const char* one;
    const char* many;
    std::size_t untold = 0;
    uid_t lastUser = 0;
    std::string lastReason;
    bool isQuiet = false;  // a line was written within the last interval
    tk::Timer<RefusalLog, &RefusalLog::intervalEnds> interval{*this};
};

}  // namespace router
