#pragma once

#include <cstddef>
#include <cstdint>

#include "tk/message.h"
#include "tk/status.h"

namespace tk {

/// What a handler answers with: an empty message where it went well, else the error with this code.
[[nodiscard]] message answerOf(const Status& outcome, std::uint32_t code);
/// The same where the status carries the code of a bus error.
[[nodiscard]] message answerOf(const Status& outcome);

/// The reply to command::getCount.
[[nodiscard]] message countReply(std::size_t count);

/// Makes a record report that its object is deleted.
void markDeleted(message& record);

}  // namespace tk
