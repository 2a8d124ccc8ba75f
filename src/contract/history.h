#pragma once

#include <cstdint>

/// The undo history, at {24}. A record is what tk::undofield names, and:
namespace contract {

namespace historyfield {
constexpr std::uint32_t program = 4;  // u32: who handed the record in
constexpr std::uint32_t time = 5;     // u64: seconds since 1970
constexpr std::uint32_t path = 6;     // u32[]: of the handler that handed the record in
}  // namespace historyfield
// Command: the inverse of the last record goes to whoever recorded it, and the end of that is the answer, with the
// record's id and description. What the same handler records meanwhile is not kept, for it is the undoing itself.
constexpr std::uint32_t undoLast = 2;

}  // namespace contract
