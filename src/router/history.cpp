#include "router/history.h"

#include <iterator>
#include <string>
#include <utility>

#include "contract/history.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/page.h"

namespace router {

namespace {

namespace field = contract::historyfield;

constexpr std::size_t pageSize = 20;  // a record carries whole requests

}  // namespace

tk::message History::cmdAddObj(const tk::message& request) {
    if (request.size_message_array(tk::undofield::request) != 1 ||
        request.size_message_array(tk::undofield::inverse) != 1)
        return tk::errorMsg(tk::error::invalid, "an undo record holds one request and one inverse");
    const tk::Path& from = request.get_u32_array(tk::field::sender);
    if (undoing != 0 && undoingPath == from) return {};
    tk::message record;
    record.insert_u32(tk::field::objectId, lastId + 1);
    record.insert_message_array(tk::undofield::request, request.get_message_array(tk::undofield::request));
    record.insert_message_array(tk::undofield::inverse, request.get_message_array(tk::undofield::inverse));
    record.insert_string(tk::undofield::description, request.get_string(tk::undofield::description));
    record.insert_u32(field::program, from.front());
    record.insert_u64(field::time, time());
    record.insert_u32_array(field::path, from);
    const std::size_t size = record.serialise().size();
    if (size > byteLimit) return tk::errorMsg(tk::error::refused, "the undo record is too large");
    records[++lastId] = {record, size};
    bytes += size;
    makeRoom();
    notifyChange(lastId, record);
    tk::message reply;
    reply.insert_u32(tk::field::objectId, lastId);
    return reply;
}

/// The oldest records go, but neither the new one nor the one that is being undone, which its end takes off.
void History::makeRoom() {
    auto oldest = records.begin();
    while ((records.size() > limit || bytes > byteLimit) && oldest->first != lastId) {
        const auto next = std::next(oldest);
        if (oldest->first != undoing) erase(oldest);
        oldest = next;
    }
}

void History::erase(Records::iterator record) {
    bytes -= record->second.bytes;
    records.erase(record);
}

tk::message History::cmdUnknown(const tk::message& received, std::uint32_t command) {
    return command == contract::undoLast ? undo(received) : Handler::cmdUnknown(received, command);
}

tk::message History::undo(const tk::message& request) {
    if (records.empty()) return tk::errorMsg(tk::error::noSuchObject, "there is nothing to undo");
    if (undoing != 0) return tk::errorMsg(tk::error::busy, "a change is being undone already");
    const auto& [id, entry] = *records.rbegin();
    const tk::message& record = entry.content;
    const tk::message& inverse = record.get_message_array(tk::undofield::inverse).front();
    const std::uint32_t command = inverse.get_u32(tk::field::command);
    if (command == 0) return tk::errorMsg(tk::error::failed, "the record does not say how to undo it");
    tk::message sent;
    sent.insert_u32_array(tk::field::destination, record.get_u32_array(field::path));
    for (const tk::message::Field& value : tk::withoutRouting(inverse).fields()) sent.insert(value);
    tk::stamp(sent, path(), 0, tk::Kind::request, command);
    undoing = id;
    undoingPath = record.get_u32_array(field::path);
    undoingText = record.get_string(tk::undofield::description);
    undoRequest = tk::routingOf(request);
    (void)sendMessage(
        std::move(sent));  // its end, an error too, comes to handleReply(), maybe before this returns
    return answerLater();
}

tk::message History::cmdDisconnected(const tk::Path& client) {
    if (client.front() < tk::program::firstClient) return {};
    for (auto record = records.begin(); record != records.end();) {
        const auto next = std::next(record);
        if (record->second.content.get_u32_array(field::path).front() == client.front()) erase(record);
        record = next;
    }
    return {};
}

/// Whoever recorded it may have left, and the record with it.
void History::takeOff(std::uint32_t id) {
    if (const auto record = records.find(id); record != records.end()) erase(record);
    tk::message gone;
    gone.insert_u32(tk::field::deleted, 1);
    notifyChange(id, gone);
}

tk::message History::handleReply(const tk::message& end) {
    if (undoing == 0) return {};
    const std::uint32_t id = std::exchange(undoing, 0);
    const tk::message request = std::exchange(undoRequest, {});
    std::uint32_t code = 0;
    std::string text;
    const bool isUndone = !tk::isError(end, &code, &text);
    // What nobody will ever undo must not stand before what lies below it. A program that is not there may
    // come.
    const bool isOfMainHandler = undoingPath.size() < 2 || undoingPath[1] == 0;
    const bool isHopeless =
        code == tk::error::noSuchCommand || (code == tk::error::unreachable && !isOfMainHandler);
    if (isUndone || isHopeless) takeOff(id);
    if (!isUndone) {
        sendAnswer(request, tk::errorMsg(code, text));
        return {};
    }
    tk::message answer;
    answer.insert_u32(tk::field::objectId, id);
    answer.insert_string(tk::undofield::description, undoingText);
    sendAnswer(request, answer);
    return {};
}

tk::message History::cmdGetObj(const tk::message& request) {
    const std::uint32_t id = request.get_u32(tk::field::objectId);
    const auto record = records.find(id);
    return record == records.end() ? tk::errorMsg(tk::error::noSuchObject, "no record " + std::to_string(id))
                                   : record->second.content;
}

tk::message History::cmdGetAll(const tk::message& request) {
    return pageOf(records, request, pageSize,
                  [](std::uint32_t, const Record& record) { return record.content; });
}

tk::message History::cmdGetCount(const tk::message&) {
    tk::message reply;
    reply.insert_u32(tk::field::count, static_cast<std::uint32_t>(records.size()));
    return reply;
}

}  // namespace router
