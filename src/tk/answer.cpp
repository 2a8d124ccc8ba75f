#include "tk/answer.h"

#include "tk/names.h"

namespace tk {

message answerOf(const Status& outcome, std::uint32_t code) {
    return outcome.isOk() ? message() : errorMsg(code, outcome.reason());
}

message answerOf(const Status& outcome) {
    return answerOf(outcome, outcome.code());
}

message countReply(std::size_t count) {
    message reply;
    reply.insert_u32(field::count, static_cast<std::uint32_t>(count));
    return reply;
}

void markDeleted(message& record) {
    record.insert_u32(field::deleted, 1);
}

}  // namespace tk
