#include "netlink/request.h"

#include <errno.h>
#include <libmnl/libmnl.h>
#include <string.h>

#include <limits>
#include <string>
#include <utility>

namespace netlink {

namespace {

constexpr int dumpAttempts = 20;

/// The kernel's own words in an error message; empty when it has none.
std::string kernelText(const nlmsghdr& message, const nlmsgerr& error) {
    if ((message.nlmsg_flags & NLM_F_ACK_TLVS) == 0) return {};
    std::size_t offset = sizeof error;
    if ((message.nlmsg_flags & NLM_F_CAPPED) == 0) {
        // Our request stands before them. An offset from its length must not lead out of this message.
        const std::size_t room = mnl_nlmsg_get_payload_len(&message) - sizeof error;
        const std::size_t length = error.msg.nlmsg_len;
        if (length < sizeof error.msg || length - sizeof error.msg > room) return {};
        offset += length - sizeof error.msg;
    }
    const char* tail = static_cast<const char*>(mnl_nlmsg_get_payload_tail(&message));
    const auto* attribute = static_cast<const nlattr*>(mnl_nlmsg_get_payload_offset(&message, offset));
    while (mnl_attr_ok(attribute, static_cast<int>(tail - reinterpret_cast<const char*>(attribute)))) {
        if (mnl_attr_get_type(attribute) == NLMSGERR_ATTR_MSG &&
            mnl_attr_validate(attribute, MNL_TYPE_NUL_STRING) == 0)
            return mnl_attr_get_str(attribute);
        attribute = mnl_attr_next(attribute);
    }
    return {};
}

/// The errno value that an answer ends with. The kernel negates it; the lowest number, which is none, has no other
/// sign.
int errnoOf(int ending) {
    if (ending == std::numeric_limits<int>::min()) return EBADMSG;
    return ending < 0 ? -ending : ending;
}

/// What the end of a dump says: a negative errno value with newer kernels, nothing with older ones.
tk::Status outcomeOfDone(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(int)) return {};
    const int status = *static_cast<const int*>(mnl_nlmsg_get_payload(&message));
    return status < 0 ? tk::Status::ofErrno(errnoOf(status)) : tk::Status();
}

/// Sends messages, and waits for the end of their answer.
Answer ask(Socket& socket, std::span<const char> bytes, Answer answer, int milliseconds,
           const Visitor& visit) {
    if (tk::Status sent = socket.send(bytes.data(), bytes.size()); !sent.isOk()) answer.fail(std::move(sent));
    answer.complete(socket, milliseconds, visit);
    return answer;
}

Answer ask(Socket& socket, nlmsghdr& message, const Visitor& visit) {
    message.nlmsg_seq = socket.nextSequence();
    message.nlmsg_flags = static_cast<std::uint16_t>(message.nlmsg_flags | NLM_F_REQUEST | NLM_F_ACK);
    return ask(socket, {reinterpret_cast<const char*>(&message), message.nlmsg_len},
               Answer(message.nlmsg_seq, message.nlmsg_seq), answerMilliseconds, visit);
}

}  // namespace

tk::Status request(Socket& socket, nlmsghdr& message, const Visitor& visit) {
    return ask(socket, message, visit).outcome();
}

tk::Status dump(Socket& socket, nlmsghdr& message, const std::function<void()>& begin, const Visitor& visit) {
    message.nlmsg_flags = static_cast<std::uint16_t>(message.nlmsg_flags | NLM_F_DUMP);
    Answer answer;
    for (int attempt = 0; attempt < dumpAttempts; ++attempt) {
        begin();
        answer = ask(socket, message, visit);
        if (!answer.isInterrupted() && !answer.isPartial()) return answer.outcome();
    }
    tk::Status outcome = answer.outcome();
    return outcome.isOk() ? tk::Status::ofErrno(EINTR) : outcome;
}

tk::Status transact(Socket& socket, std::span<const char> messages, std::uint32_t first, std::uint32_t last) {
    return ask(socket, messages, Answer(first, last), transactionMilliseconds, ignore).outcome();
}

Answer::Answer(std::uint32_t first, std::uint32_t last) : first(first), last(last), isExpected(true) {}

bool Answer::receive(Socket& socket, int milliseconds, const Visitor& visit) {
    // After a loss reads only what still waits: an error may be among it, and what comes next needs the room.
    const auto result = socket.receive(lossError == 0 ? milliseconds : 0,
                                       [&](const nlmsghdr& message) { take(message, visit); });
    if (!result.isOk()) {
        lose(static_cast<int>(result.status().code()));
        return false;
    }
    switch (*result) {
        case Socket::Received::datagram:
            return true;
        case Socket::Received::lost:
            lossError = ENOBUFS;
            return true;
        case Socket::Received::nothing:
            if (lossError != 0) isExpected = false;
            return false;
    }
    return false;
}

void Answer::complete(Socket& socket, int milliseconds, const Visitor& visit) {
    while (isExpected)
        if (!receive(socket, milliseconds, visit) && isExpected) lose(ETIMEDOUT);
}

void Answer::fail(tk::Status why) {
    refusal = std::move(why);
    isExpected = false;
}

void Answer::lose(int error) {
    lossError = error;
    isExpected = false;
}

void Answer::take(const nlmsghdr& message, const Visitor& visit) {
    if (!isExpected || message.nlmsg_seq < first || message.nlmsg_seq > last) return;
    sawInterruption = sawInterruption || (message.nlmsg_flags & NLM_F_DUMP_INTR) != 0;
    const bool isError = message.nlmsg_type == NLMSG_ERROR;
    if (!isError && message.nlmsg_type != NLMSG_DONE) return visit(message);
    const tk::Status ending = isError ? outcomeOf(message) : outcomeOfDone(message);
    if (refusal.isOk()) refusal = ending;
    // An error of a transaction as a whole carries the number of its first message.
    isExpected = message.nlmsg_seq != first && message.nlmsg_seq != last;
}

bool Answer::isPartial() const {
    return lossError == ENOBUFS || refusal.code() == EINTR || refusal.code() == ENOBUFS;
}

tk::Status Answer::outcome() const {
    // One error is enough to know that nothing was done. Success is certain only when no error can be
    // missing.
    if (lossError == 0 || !refusal.isOk()) return refusal;
    return tk::Status::failure(::strerror(lossError), unanswered);
}

tk::Status outcomeOf(const nlmsghdr& message) {
    if (mnl_nlmsg_get_payload_len(&message) < sizeof(nlmsgerr)) return tk::Status::ofErrno(EBADMSG);
    const auto* error = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(&message));
    if (error->error == 0) return {};
    const int number = errnoOf(error->error);
    const std::string text = kernelText(message, *error);
    if (text.empty()) return tk::Status::ofErrno(number);
    return tk::Status::failure(std::string(::strerror(number)) + " (" + text + ")",
                               static_cast<std::uint32_t>(number));
}

}  // namespace netlink
