#pragma once

#include <string_view>

/// Sends a whole text on a connected TCP socket, in one call that never waits for the peer: the socket's
/// buffer is first made large enough for it. Errors: false when less went out; what is missing is not sent
/// later.
[[nodiscard]] bool sendWhole(int socket, std::string_view text);
