#pragma once

#include <sys/types.h>

#include <cstdint>

#include "tk/fd.h"

namespace router {

/// What the router asks of its launcher. A value.
struct LauncherRequest {
    enum class What : std::uint32_t { start = 1, signal = 2, reap = 3 };

    What what = What::start;
    std::uint32_t program = 0;  // to be started: its number
    pid_t process = 0;          // to be signalled or reaped
    std::int32_t number = 0;    // of the signal
};

/// What comes of it. A value.
struct LauncherAnswer {
    pid_t process = 0;  // that was started, or -1
    bool hasEnded = false;
    std::int32_t status = 0;  // of a process that has ended
    char reason[256] = {};    // why nothing was started, a text that ends with 0
};

/// Both ends of the connection. `answer` may come with a descriptor.
/// Errors: false when the other end is gone.
[[nodiscard]] bool sendRequest(int socket, const LauncherRequest& request);
[[nodiscard]] bool receiveRequest(int socket, LauncherRequest& request);
[[nodiscard]] bool sendAnswer(int socket, const LauncherAnswer& answer, int descriptor);
[[nodiscard]] bool receiveAnswer(int socket, LauncherAnswer& answer, tk::Fd& descriptor);

}  // namespace router
