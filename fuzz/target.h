#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "tk/fd.h"

/// Called by libFuzzer with each input. Returns 0; an input that was not taken is no failure.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

/// The input as text.
/// Lifetime: that of the input.
inline std::string_view text(const std::uint8_t* data, std::size_t size) {
    return {reinterpret_cast<const char*>(data), size};
}

/// Ends the run, and keeps the input, when something that always holds does not.
inline void require(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "broken: %s\n", what);
    std::abort();
}

/// The number that the next descriptor gets. It is the same before and after what gives all of its own back.
inline int nextDescriptor() {
    return tk::Fd(::dup(STDERR_FILENO)).get();
}

}  // namespace fuzz
