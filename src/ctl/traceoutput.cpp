#include "ctl/traceoutput.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>

#include "tk/log.h"

namespace ctl {

TraceOutput::Result TraceOutput::write(std::string_view text) {
    while (!text.empty()) {
        pollfd watched[] = {{target, POLLOUT, 0}, {interruption, POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0) continue;  // a signal that is not ours
        if (watched[0].revents == 0) return Result::interrupted;
        // A pipe that can be written to takes at least this much without waiting.
        const ssize_t count = ::write(target, text.data(), std::min<std::size_t>(text.size(), PIPE_BUF));
        if (count >= 0) {
            text.remove_prefix(static_cast<std::size_t>(count));
            continue;
        }
        if (errno == EAGAIN || errno == EINTR) continue;
        if (errno == EPIPE || errno == EIO) return Result::closed;  // EIO: a terminal that is gone
        failure = tk::errorText();
        return Result::failed;
    }
    return Result::written;
}

}  // namespace ctl
