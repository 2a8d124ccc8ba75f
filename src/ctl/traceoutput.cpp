#include "ctl/traceoutput.h"

#include <errno.h>
#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "contract/programs.h"
#include "ctl/fieldspec.h"
#include "ctl/json.h"
#include "ctl/text.h"
#include "tk/bus.h"
#include "tk/log.h"
#include "tk/names.h"

namespace ctl {

namespace {

constexpr std::size_t kindWidth = 12;  // of "notification"

std::string end(const tk::Path& path) {
    return path.empty() ? "-" : pathText(path);
}

}  // namespace

const tk::message* tracedMessage(const tk::message& received) {
    const bool isTrace = tk::kindOf(received) == tk::Kind::notification &&
                         received.get_u32_array(tk::field::sender) == contract::path::hub() &&
                         received.get_u32(tk::field::command) == tk::command::hubTraced;
    const std::vector<tk::message>& messages = received.get_message_array(tk::hubfield::traced);
    return isTrace && messages.size() == 1 ? &messages.front() : nullptr;
}

std::string traceText(const tk::message& traced) {
    std::string line(kindName(tk::kindOf(traced)));
    line.resize(kindWidth, ' ');
    line += ' ' + end(traced.get_u32_array(tk::field::sender)) + " > " +
            end(traced.get_u32_array(tk::field::destination)) + ' ' +
            hexText(traced.get_u32(tk::field::command));
    if (const std::uint32_t number = traced.get_u32(tk::field::number)) line += " #" + std::to_string(number);
    std::uint32_t code = 0;
    std::string text;
    if (tk::isError(traced, &code, &text)) line += ' ' + hexText(code) + ' ' + lineOf(text);
    tk::message own = tk::withoutRouting(traced);
    own.remove(tk::field::errorCode);
    own.remove(tk::field::errorText);
    for (const tk::message::Field& field : own.fields()) line += ' ' + fieldText(field);
    return line;
}

TraceOutput::Result TraceOutput::write(std::string_view text) {
    while (!text.empty()) {
        pollfd watched[] = {{target, POLLOUT, 0}, {interruption, POLLIN, 0}};
        if (::poll(watched, 2, -1) < 0) continue;  // interrupted by a signal that is not ours
        if (watched[0].revents == 0) return Result::interrupted;
        // A writable pipe takes at least this much without waiting.
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
