#include "router/history.h"

#include <iterator>
#include <string>
#include <utility>

#include "tk/answer.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/page.h"

namespace router {

namespace {

constexpr std::size_t pageSize = 20;  // a record carries whole requests

}  // namespace

tk::message History::cmdAddObj(const tk::message& request) {
    if (request.size_message_array(tk::undofield::request) != 1 ||
        request.size_message_array(tk::undofield::inverse) != 1)
        return tk::errorMsg(tk::error::invalid, "an undo record holds one request and one inverse");
    const tk::Path& from = request.get_u32_array(tk::field::sender);
    if (undoing.id != 0 && undoing.path == from) return {};
    contract::UndoRecord change = contract::UndoRecord::fromMessage(request);
    change.id = lastId + 1;
    change.program = from.front();
    change.time = time();
    change.path = from;
    const tk::message shown = change.toMessage();
    const std::size_t size = shown.serialise().size();
    if (size > byteLimit) return tk::errorMsg(tk::error::refused, "the undo record is too large");
    records[++lastId] = {std::move(change), size};
    bytes += size;
    makeRoom();
    notifyChange(lastId, shown);
    tk::message reply;
    reply.insert_u32(tk::field::objectId, lastId);
    return reply;
}

/// Removes the oldest records, but not the new one, nor the one that is being undone: the end of the undoing
/// removes that.
void History::makeRoom() {
    auto oldest = records.begin();
    while ((records.size() > limit || bytes > byteLimit) && oldest->first != lastId) {
        const auto next = std::next(oldest);
        if (oldest->first != undoing.id) erase(oldest);
        oldest = next;
    }
}

void History::erase(Records::iterator record) {
    bytes -= record->second.bytes;
    records.erase(record);
}

tk::message History::cmdUnknown(const tk::message& received, std::uint32_t command) {
    return command == contract::undoLast ? undoLast(received) : Handler::cmdUnknown(received, command);
}

tk::message History::undoLast(const tk::message& request) {
    if (records.empty()) return tk::errorMsg(tk::error::noSuchObject, "there is nothing to undo");
    if (undoing.id != 0) return tk::errorMsg(tk::error::busy, "a change is being undone already");
    const contract::UndoRecord& last = records.rbegin()->second.change;
    if (last.inverse.get_u32(tk::field::command) == 0)
        return tk::errorMsg(tk::error::failed, "the record does not say how to undo it");
    undoing = last;
    undoRequest = tk::routingOf(request);
    send(undoing.inverse);
    return answerLater();
}

/// Sends the inverse to the handler that recorded it. Its end, which may be an error, goes to handleReply(),
/// perhaps before this returns.
void History::send(const tk::message& inverse) {
    tk::message sent;
    sent.insert_u32_array(tk::field::destination, undoing.path);
    for (const tk::message::Field& value : tk::withoutRouting(inverse).fields()) sent.insert(value);
    tk::stamp(sent, path(), 0, tk::Kind::request, inverse.get_u32(tk::field::command));
    (void)sendMessage(std::move(sent));  // without a bus nobody asked
}

tk::message History::cmdDisconnected(const tk::Path& client) {
    if (client.front() < tk::program::firstClient) return {};
    for (auto record = records.begin(); record != records.end();) {
        const auto next = std::next(record);
        if (record->second.change.path.front() == client.front()) erase(record);
        record = next;
    }
    return {};
}

/// The client that recorded it may have left, and taken the record with it.
void History::takeOff(std::uint32_t id) {
    if (const auto record = records.find(id); record != records.end()) erase(record);
    tk::message gone;
    tk::markDeleted(gone);
    notifyChange(id, gone);
}

tk::message History::handleReply(const tk::message& end) {
    if (undoing.id == 0) return {};
    const contract::UndoRecord change = std::exchange(undoing, {});
    const tk::message request = std::exchange(undoRequest, {});
    std::uint32_t code = 0;
    std::string text;
    const bool isUndone = !tk::isError(end, &code, &text);
    // A record that nobody will ever undo must not block those below it. A program that is absent may come
    // back.
    const bool isOfMainHandler = change.path.size() < 2 || change.path[1] == 0;
    const bool isHopeless =
        code == tk::error::noSuchCommand || (code == tk::error::unreachable && !isOfMainHandler);
    if (isUndone || isHopeless) takeOff(change.id);
    if (!isUndone) {
        sendAnswer(request, tk::errorMsg(code, text));
        return {};
    }
    tk::message answer;
    answer.insert_u32(tk::field::objectId, change.id);
    answer.insert_string(tk::undofield::description, change.description);
    sendAnswer(request, answer);
    return {};
}

tk::message History::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const auto record = records.find(id);
    return record == records.end() ? tk::errorMsg(tk::error::noSuchObject, "no record " + std::to_string(id))
                                   : record->second.change.toMessage();
}

tk::message History::cmdGetAll(const tk::message& request) {
    return pageOf(records, request, pageSize,
                  [](std::uint32_t, const Record& record) { return record.change.toMessage(); });
}

tk::message History::cmdGetCount(const tk::message&) {
    return tk::countReply(records.size());
}

}  // namespace router
