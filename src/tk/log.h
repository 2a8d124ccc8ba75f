#pragma once

#include <concepts>
#include <cstdint>
#include <string>
#include <string_view>

namespace tk {

/// Writes one log line to standard output: the text as printable() makes it, and a line end. A line of more
/// than 4 KiB is cut, and says so at its end.
/// The line goes out whole, at once or with its batch. A reader that stalls never stops the program: lines
/// wait in a bounded queue. Those that find it full are dropped; a line of its own gives their number once
/// there is room.
void logLine(std::string_view text);

/// Writes the lines that wait, as far as the reader takes them. True when none waits any more. Call it before
/// something leaves the process by which others can tell that a line is due.
bool flushLog();

/// Gathers the lines that are logged while it exists, so that many cost one write. They go out at its end, with
/// flushLog(), or when there are more than one write takes. A process that is killed loses those of its batch.
class LogBatch {
public:
    LogBatch();
    LogBatch(const LogBatch&) = delete;
    LogBatch& operator=(const LogBatch&) = delete;
    ~LogBatch();
};

/// The text of the current errno.
std::string errorText();

namespace detail {
inline void appendTo(std::string& line, std::string_view text) {
    line += text;
}
inline void appendTo(std::string& line, const char* text) {
    line += text;
}
inline void appendTo(std::string& line, char character) {
    line += character;
}
inline void appendTo(std::string& line, std::same_as<bool> auto value) {
    line += value ? '1' : '0';
}
inline void appendTo(std::string& line, int value) {
    line += std::to_string(value);
}
inline void appendTo(std::string& line, std::uint32_t value) {
    line += std::to_string(value);
}
inline void appendTo(std::string& line, std::uint64_t value) {
    line += std::to_string(value);
}
}  // namespace detail

/// Logs one event as one line: its parts, without separators. Booleans print as 0 or 1, numbers in decimal.
template <typename... Parts>
void log(const Parts&... parts) {
    std::string line;
    (detail::appendTo(line, parts), ...);
    logLine(line);
}

}  // namespace tk
