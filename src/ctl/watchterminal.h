#pragma once

#include <termios.h>

#include <optional>
#include <string_view>

#include "ctl/traceoutput.h"
#include "tk/fd.h"

namespace ctl {

/// A terminal that a live view has for itself: the other screen, no cursor, and keys that are read at once
/// and not shown. At its end everything is as it was.
class WatchTerminal {
public:
    /// `interruption` becomes readable when a write is not to wait any longer. Where the display has no cursor
    /// to move, only the keys are taken.
    /// Lifetime: all descriptors outlive the object.
    WatchTerminal(int keyboard, int display, int interruption, bool hasCursor);
    WatchTerminal(const WatchTerminal&) = delete;
    WatchTerminal& operator=(const WatchTerminal&) = delete;
    ~WatchTerminal() { leave(); }

    /// Takes the terminal, or gives it back; to do either twice changes nothing.
    void enter();
    void leave();

    /// Writes at the speed of the terminal.
    [[nodiscard]] TraceOutput::Result write(std::string_view text) { return output.write(text); }
    /// Why the last write failed.
    const std::string& reason() const { return output.reason(); }

private:
    void writeWithoutWaiting(std::string_view text);

    int keyboard;
    int display;
    bool hasCursor;
    // The same terminal, opened once more, so that it can be made non-blocking for us alone.
    tk::Fd own;
    TraceOutput output;
    std::optional<termios> before;  // the keyboard's, if it is a terminal
    bool isEntered = false;
};

}  // namespace ctl
