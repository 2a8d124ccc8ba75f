#include <benchmark/benchmark.h>

#include <cstdint>
#include <deque>

#include "tk/runner.h"
#include "tk/timer.h"

namespace {

constexpr std::uint32_t requestTicks = 1000;  // as long as a request may take

struct Owner {
    explicit Owner(tk::Runner& runner) : timer(*this, runner) {}
    void expired() {}

    tk::Timer<Owner, &Owner::expired> timer;
};

/// One timer more, armed and withdrawn, among as many as the argument says.
void armAndDisarm(benchmark::State& state) {
    const tk::SystemClock clock;
    tk::Runner runner(clock);
    std::deque<Owner> others;
    for (std::int64_t i = 1; i < state.range(0); ++i) {
        others.emplace_back(runner);
        others.back().timer.arm(requestTicks + static_cast<std::uint32_t>(i));
    }
    Owner one(runner);
    for (auto _ : state) {
        one.timer.arm(requestTicks);
        one.timer.disarm();
    }
}
BENCHMARK(armAndDisarm)->Arg(1)->Arg(1000)->Arg(10000);

}  // namespace
