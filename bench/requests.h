#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "bench/arguments.h"

namespace bench {

/// The requests of a measurement, in the order in which they go out: each number of a range with every text,
/// then the next number; after the last one the first again.
class Requests {
public:
    /// In the texts @PORT@ and @INDEX@ stand for numbers of the ranges. CONTENT-LENGTH is put right.
    Requests(std::vector<std::string> texts, std::optional<Range> ports, std::optional<Range> indexes);

    /// How many there are until they begin again.
    std::size_t count() const;
    /// The next request, whole.
    std::string next();

private:
    std::vector<std::string> texts;
    std::optional<Range> ports;
    std::optional<Range> indexes;
    unsigned taken = 0;
};

/// Puts `value` wherever `text` has `name`. True when it has.
bool substitute(std::string& text, const std::string& name, const std::string& value);

}  // namespace bench
