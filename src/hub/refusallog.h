#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/timer.h"

namespace hub {

/// Logs events that others can cause as often as they like: the first ones at once, then once a minute how
/// many there were since. So nobody can fill the log.
class RefusalLog {
public:
    /// How often the count is logged: once a minute.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t intervalTicks = 6000;

    /// `area` begins each line. `counted` says what is counted, such as "connections refused". `atOnce` is
    /// how many events are logged one by one before the rest is counted.
    /// Lifetime: the texts live as long as the program.
    RefusalLog(const char* area, const char* counted, std::size_t atOnce = 1)
        : area(area), counted(counted), atOnce(atOnce) {}

    /// A connection of `user` caused `event`, such as "connection of user 7 refused".
    void note(const std::string& event, uid_t user, const std::string& why);
    /// Logs what is left to log. Call while the loop still exists.
    void close();

private:
    void intervalEnds();
    [[nodiscard]] bool tell();

    const char* area;
    const char* counted;
    const std::size_t atOnce;
    std::size_t told = 0;  // within the last interval
    std::size_t untold = 0;
    uid_t lastUser = 0;
    std::string lastReason;
    tk::Timer<RefusalLog, &RefusalLog::intervalEnds> interval{*this};
};

}  // namespace hub
