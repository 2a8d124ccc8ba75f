#include "tk/testing/testloop.h"

#include <algorithm>

namespace tk::testing {

void TestLoop::advance(std::uint32_t ticks) {
    std::uint64_t left = std::uint64_t{ticks} * tickMilliseconds;
    for (;;) {
        const int next = looper.runner().untilNextTimer();
        const std::uint64_t step =
            next < 0 ? left : std::min<std::uint64_t>(left, static_cast<std::uint64_t>(next));
        clock.advance(step);
        left -= step;
        const bool due = looper.runner().untilNextTimer() == 0;
        looper.turn(0);
        if (left == 0 && !due) return;
    }
}

void TestLoop::settle(int limit) {
    for (int i = 0; i < limit; ++i) {
        looper.turn(0);
        for (; !bus.ends.empty(); bus.ends.pop_front()) looper.dispatch(message(bus.ends.front()));
    }
}

void TestLoop::end(std::uint32_t number, message content) {
    const Kind kind = isError(content) ? Kind::error : Kind::reply;
    stamp(content, {program::hub}, number, kind, 0);
    looper.dispatch(content);
}

void TestLoop::notify(const Path& from, std::uint32_t command, message content) {
    stamp(content, from, 0, Kind::notification, command);
    looper.dispatch(content);
}

message TestLoop::request(std::uint32_t command, message content) {
    content.insert_u32_array(field::destination, {ownProgram, 0});
    stamp(content, {program::firstClient}, 1, Kind::request, command);
    looper.dispatch(content);
    return bus.posted.empty() ? message() : withoutRouting(bus.posted.back());
}

}  // namespace tk::testing
