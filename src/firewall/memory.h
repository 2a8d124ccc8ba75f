#pragma once

#include <cstdlib>

// The library that builds messages for the kernel asks for memory at each step. A rule of which a piece is missing must
// never reach the kernel, so a process that gets no more memory ends, as it does where our own code gets none.
namespace firewall {

/// What the library made.
template <typename T>
[[nodiscard]] T* made(T* object) {
    if (!object) std::abort();
    return object;
}

/// Notes how a call of the library ended that fails only without memory.
inline void done(int outcome) {
    if (outcome != 0) std::abort();
}

}  // namespace firewall
