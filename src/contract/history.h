#pragma once

#include <cstdint>
#include <string>

#include "tk/message.h"

/// The undo history, at {24}.
namespace contract {

/// The fields that the history adds to a record; those that a program hands in are tk::undofield.
namespace historyfield {
constexpr std::uint32_t program = 4;  // u32: who handed the record in
constexpr std::uint32_t time = 5;     // u64: seconds since 1970
constexpr std::uint32_t path = 6;     // u32[]: the handler that did
}  // namespace historyfield

/// Command: sends the inverse of the last record to whoever recorded it. The end of that is the answer, with
/// the record's id and description. What the same handler records meanwhile is not kept: it is the undoing
/// itself.
constexpr std::uint32_t undoLast = 2;

/// One change that can be undone, as the history keeps and shows it. A value.
struct UndoRecord {
    std::uint32_t id = 0;
    tk::message request;      // the one that was applied
    tk::message inverse;      // the request that undoes it
    std::string description;  // for people
    std::uint32_t program = 0;
    std::uint64_t time = 0;  // seconds since 1970
    tk::Path path;           // of the handler that handed it in

    /// The record as it is sent.
    [[nodiscard]] tk::message toMessage() const;
    /// Reads a record; a value whose field is absent keeps its default.
    [[nodiscard]] static UndoRecord fromMessage(const tk::message& source);

    bool operator==(const UndoRecord&) const = default;
};

}  // namespace contract
