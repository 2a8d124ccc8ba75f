#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "tk/timer.h"

namespace hub {

/// Tells the log of what others can bring about as often as they like: of the first such events at once, and
/// once a minute how many there were since. So nobody can fill the log.
class RefusalLog {
public:
    /// How often what is counted is told: once a minute.
    /// Units: ticks of 10 ms.
    static constexpr std::uint32_t intervalTicks = 6000;

    /// `area` begins each line; `counted` says what is counted, such as "connections refused"; `atOnce` is
    /// how many events are told at once before they are counted.
    /// Lifetime: the texts' is the program's.
    RefusalLog(const char* area, const char* counted, std::size_t atOnce = 1)
        : area(area), counted(counted), atOnce(atOnce) {}

    /// Something happened that a connection of `user` brought about, such as "connection of user 7 refused".
    void note(const std::string& event, uid_t user, const std::string& why);
    /// Tells what is left to tell. Call while the loop still exists.
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
