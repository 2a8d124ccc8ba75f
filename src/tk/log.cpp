#include "tk/log.h"

#include <limits.h>
#include <poll.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "tk/characters.h"

namespace tk {

namespace {

constexpr std::size_t waitingLimit = std::size_t{256} * 1024;  // bytes for a stalled reader
constexpr std::size_t keptBytes = 4096;                        // of the buffer, while no line waits
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

    std::string text;  // with their line ends; the first line may have lost its start
    std::uint32_t dropped = 0;
    unsigned batches = 0;  // those that exist
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

/// As many whole lines as a pipe takes whole or not at all.
std::size_t writeLength(const std::string& text) {
    if (text.size() <= PIPE_BUF) return text.size();
    return text.rfind('\n', PIPE_BUF - 1) + 1;
}

/// Writes some of the lines. False when they must wait.
bool writeSome(std::string& text) {
    if (!writable()) return false;
    const std::size_t length = writeLength(text);
    const ssize_t written = ::write(STDOUT_FILENO, text.data(), length);
    if (written < 0 && (errno == EAGAIN || errno == EINTR)) return false;
    // After any other error these lines are lost: the reader is gone, or a disk is full.
    text.erase(0, written < 0 ? length : static_cast<std::size_t>(written));
    return true;
}

void enqueue(const std::string& line) {
    Waiting& queue = waiting();
    if (!queue.text.empty() && queue.text.size() + line.size() > waitingLimit) {
        ++queue.dropped;
        return;
    }
    queue.text.append(line).append("\n");
}

}  // namespace

/// Waits a moment with the last lines of a process, so that a reader that is only slow still gets them.
Waiting::~Waiting() {
    pollfd target{STDOUT_FILENO, POLLOUT, 0};
    while (!text.empty() && ::poll(&target, 1, lastWaitMilliseconds) == 1) (void)flushLog();
}

bool flushLog() {
    Waiting& queue = waiting();
    while (!queue.text.empty()) {
        if (!writeSome(queue.text)) return false;
        if (queue.text.empty() && queue.dropped > 0) {
            enqueue(std::to_string(queue.dropped) + " log lines dropped: nobody read them");
            queue.dropped = 0;
        }
    }
    if (queue.text.capacity() > keptBytes) std::string().swap(queue.text);  // an assignment keeps it
    return true;
}

LogBatch::LogBatch() {
    ++waiting().batches;
}

LogBatch::~LogBatch() {
    if (--waiting().batches == 0) (void)flushLog();  // the rest goes out with the next line or turn
}

void logLine(std::string_view text) {
    enqueue(lineOf(text));
    // A batch saves nothing beyond what one write takes, and must not fill the queue.
    const bool isGathered = waiting().batches > 0 && waiting().text.size() < PIPE_BUF;
    if (!isGathered) (void)flushLog();  // the rest goes out with the next line or turn
}

std::string errorText() {
    return ::strerror(errno);
}

}  // namespace tk
