#pragma once

#include <string>
#include <string_view>

#include "tk/message.h"

namespace ctl {

/// The message inside a notification of the hub's trace.
/// Errors: null for anything else.
/// Lifetime: as long as `received`.
[[nodiscard]] const tk::message* tracedMessage(const tk::message& received);

/// A message as one line for people: kind, from, to, command, number, an error's code and text, its own
/// fields.
[[nodiscard]] std::string traceText(const tk::message& traced);

/// Writes lines to a descriptor at once. While it waits for the reader, it watches for an interruption.
class TraceOutput {
public:
    enum class Result {
        written,
        interrupted,  // interrupted while the reader took nothing
        closed,       // the reader is gone
        failed,       // reason() tells
    };

    /// `interruption` becomes readable when the program is to end.
    /// Lifetime: both descriptors outlive the object.
    TraceOutput(int target, int interruption) : target(target), interruption(interruption) {}

    /// Writes the whole text, however long the reader takes.
    [[nodiscard]] Result write(std::string_view text);

    /// Why the last write failed.
    const std::string& reason() const { return failure; }

private:
    int target;
    int interruption;
    std::string failure;
};

}  // namespace ctl
