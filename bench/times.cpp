#include "bench/times.h"

#include <stdio.h>
#include <time.h>

#include <algorithm>

namespace bench {

namespace {

constexpr std::int64_t nanosecondsInSecond = 1'000'000'000;
constexpr double nanosecondsInMicrosecond = 1000;

}  // namespace

std::int64_t now() {
    timespec time{};
    (void)::clock_gettime(CLOCK_MONOTONIC, &time);  // this clock is always there
    return time.tv_sec * nanosecondsInSecond + time.tv_nsec;
}

double Times::quantile(double part) const {
    if (taken.empty()) return 0;
    std::vector<std::int64_t> sorted = taken;
    std::sort(sorted.begin(), sorted.end());
    const auto place = static_cast<std::size_t>(part * static_cast<double>(sorted.size()));
    return static_cast<double>(sorted[std::min(place, sorted.size() - 1)]) / nanosecondsInMicrosecond;
}

void Times::print() const {
    ::printf("\"p50\": %.2f, \"p90\": %.2f, \"p99\": %.2f, \"longest\": %.2f", quantile(0.5), quantile(0.9),
             quantile(0.99), quantile(1));
}

}  // namespace bench
