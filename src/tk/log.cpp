#include "tk/log.h"

#include <limits.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <deque>

#include "tk/characters.h"

namespace tk {

namespace {

constexpr std::size_t waitingLimit = std::size_t{256} * 1024;  // bytes for a stalled reader
constexpr int lastWaitMilliseconds = 1000;                     // for it when the process ends

// Bytes: with the line end, what a pipe takes whole.
constexpr std::size_t lineLimit = PIPE_BUF - 1;
constexpr std::string_view cutMark = " [cut]";

/// The text as it goes into the log. What others wrote must not start a new line, control the reader's
/// terminal or fill the log.
std::string lineOf(std::string_view text) {
    std::string_view rest = text;
    std::string line = takePrintable(rest, lineLimit);
    if (rest.empty()) return line;
    rest = text;
    line = takePrintable(rest, lineLimit - cutMark.size());
    line += cutMark;
    return line;
}

/// The lines not written yet. A function holds them, so that no constructor runs before main.
struct Waiting {
    ~Waiting();

    std::deque<std::string> lines;
    std::size_t bytes = 0;
    std::uint32_t dropped = 0;
};

Waiting& waiting() {
    static Waiting instance;
    return instance;
}

/// True when a write of at most PIPE_BUF bytes to standard output would not block.
bool writable() {
    pollfd target{STDOUT_FILENO, POLLOUT, 0};
    return ::poll(&target, 1, 0) == 1;
}

/// Writes the start of a line, at most PIPE_BUF bytes, which a pipe takes whole or not at all. False when it
/// must wait.
bool writeSome(std::string& line) {
    if (!writable()) return false;
    const ssize_t written = ::write(STDOUT_FILENO, line.data(), std::min<std::size_t>(line.size(), PIPE_BUF));
    if (written < 0) {
        if (errno == EAGAIN || errno == EINTR) return false;
        line.clear();  // there is no reader any more
        return true;
    }
    line.erase(0, static_cast<std::size_t>(written));
    return true;
}

void enqueue(std::string line) {
    Waiting& queue = waiting();
    if (!queue.lines.empty() && queue.bytes + line.size() > waitingLimit) {
        ++queue.dropped;
        return;
    }
    queue.bytes += line.size();
    queue.lines.push_back(std::move(line));
}

}  // namespace

/// Waits a moment with the last lines of a process, so that a reader that is only slow still gets them.
Waiting::~Waiting() {
    pollfd target{STDOUT_FILENO, POLLOUT, 0};
    while (!lines.empty() && ::poll(&target, 1, lastWaitMilliseconds) == 1) (void)flushLog();
}

bool flushLog() {
    Waiting& queue = waiting();
    while (!queue.lines.empty()) {
        std::string& line = queue.lines.front();
        const std::size_t before = line.size();
        if (!writeSome(line)) return false;
        queue.bytes -= before - line.size();
        if (line.empty()) queue.lines.pop_front();
        if (queue.lines.empty() && queue.dropped > 0) {
            enqueue(std::to_string(queue.dropped) + " log lines dropped: nobody read them\n");
            queue.dropped = 0;
        }
    }
    return true;
}

void logLine(std::string_view text) {
    enqueue(lineOf(text) + '\n');
    (void)flushLog();  // the rest goes out with the next line or turn
}

std::string errorText() {
    return ::strerror(errno);
}

}  // namespace tk
