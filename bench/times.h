#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace bench {

/// The monotonic clock.
/// Units: nanoseconds.
std::int64_t now();

/// Durations, and how they spread. A value.
/// Units: taken in nanoseconds, given in microseconds.
class Times {
public:
    /// Makes room for `count` durations, so that none is counted while memory is fetched.
    explicit Times(std::size_t count) { taken.reserve(count); }
    void add(std::int64_t duration) { taken.push_back(duration); }
    std::size_t count() const { return taken.size(); }
    /// The duration that the given part of all does not exceed; 0 when there is none.
    double quantile(double part) const;
    /// Writes p50, p90, p99 and longest as fields of a JSON object, without its braces.
    void print() const;

private:
    std::vector<std::int64_t> taken;
};

}  // namespace bench
