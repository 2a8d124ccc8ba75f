#include "tk/handler.h"

#include <algorithm>
#include <utility>

namespace tk {

namespace {

message noSuchCommand() {
    return errorMsg(error::noSuchCommand, "no such command");
}

}  // namespace

Handler::Handler() = default;
Handler::~Handler() = default;

void Handler::attach(Bus& target, Path path) {
    bus = &target;
    ownPath = std::move(path);
}

void Handler::detach() {
    bus = nullptr;
}

message Handler::exchangeCmd(message& request, std::uint32_t command, std::uint32_t timeout) {
    return exchangeMessage(request, command, timeout);
}

message Handler::exchangeMessage(const message& request, std::uint32_t command, std::uint32_t timeout) {
    if (!bus) return errorMsg(error::disconnected, "not on a bus");
    return bus->exchange(request, ownPath, command, timeout);
}

message Handler::sendMessage(message stamped) {
    if (!bus) return errorMsg(error::disconnected, "not on a bus");
    bus->post(std::move(stamped));
    return {};
}

void Handler::requestSubscription(std::uint32_t hubCommand, const Subscription& wanted) {
    message request = wanted.toMessage();
    request.insert_u32_array(field::destination, {program::hub});
    // Without a hub there are no notifications either.
    (void)exchangeCmd(request, hubCommand, exchangeTimeout);
}

void Handler::subscribe(const Path& path, std::uint32_t command, const message& filter) {
    if (!isSubscribed(path, command)) subscriptions.push_back({path, command});
    requestSubscription(command::hubSubscribe, {path, command, filter});
}

void Handler::unsubscribe(const Path& path, std::uint32_t command, const message& filter) {
    std::erase(subscriptions, Subscription{path, command});
    requestSubscription(command::hubUnsubscribe, {path, command, filter});
}

bool Handler::isSubscribed(const Path& path, std::uint32_t command) const {
    const Subscription wanted{path, command};
    return std::find(subscriptions.begin(), subscriptions.end(), wanted) != subscriptions.end();
}

bool Handler::areChangesHeard() const {
    return bus && bus->isHeard(ownPath, command::objectsChanged);
}

void Handler::notifyChange(std::uint32_t id, const message& data) {
    message notification;
    message& record = notification.get_message_array_ref(field::objects).emplace_back();
    record.reserve(data.fields().size() + 1);
    record.insert_u32(field::objectId, id);
    for (const message::Field& field : data.fields())
        if (field.id != field::objectId && !isRouting(field.id)) record.insert(field);
    stamp(notification, ownPath, 0, Kind::notification, command::objectsChanged);
    (void)sendMessage(std::move(notification));  // nobody waits for a notification
}

void Handler::sendUndo(const message& request, const message& inverse, const std::string& description) {
    message record;
    record.insert_message_array(undofield::request, {request});
    record.insert_message_array(undofield::inverse, {inverse});
    record.insert_string(undofield::description, description);
    record.insert_u32_array(field::destination, {program::history});
    // A change stands even without its record.
    (void)exchangeCmd(record, command::addObject, exchangeTimeout);
}

message Handler::answerLater() {
    message mark;
    mark.insert_bool(field::later, true);
    return mark;
}

void Handler::sendAnswer(const message& request, message answer) {
    message end = endOf(request, std::move(answer));
    end.insert_u32_array(field::sender, ownPath);  // even if the request named no handler
    (void)sendMessage(std::move(end));             // without a bus the requester is gone, too
}

message Handler::loadPermData() {
    return {};
}
message Handler::savePermData() {
    return {};
}

message Handler::handle(const message& received) {
    const std::uint32_t command = received.get_u32(field::command);
    switch (kindOf(received)) {
        case Kind::request:
            return handleCmd(received, command);
        case Kind::notification:
            return cmdUnknown(received, command);
        case Kind::reply:
        case Kind::error:
            return handleReply(received);
    }
    return {};
}

message Handler::handleBrkpath(const message&) {
    return errorMsg(error::unreachable, "no such handler");
}
message Handler::handleReply(const message&) {
    return {};
}

message Handler::handleCmd(const message& received, std::uint32_t command) {
    switch (command) {
        case command::getPolicies:
            return cmdGetPolicies(received);
        case command::get:
            return cmdGet(received);
        case command::set:
            return cmdSet(received);
        case command::reset:
            return cmdReset(received);
        case command::getObject:
            return cmdGetObj(received);
        case command::setObject:
            return cmdSetObj(received);
        case command::getAll:
            return cmdGetAll(received);
        case command::addObject:
            return cmdAddObj(received);
        case command::removeObject:
            return cmdRemoveObj(received);
        case command::moveObject:
            return cmdMoveObj(received);
        case command::getCount:
            return cmdGetCount(received);
        case command::shutdown:
            return cmdShutdown(received);
        default:
            return cmdUnknown(received, command);
    }
}

message Handler::cmdGetPolicies(const message&) {
    return noSuchCommand();
}
message Handler::cmdGet(const message&) {
    return noSuchCommand();
}
message Handler::cmdSet(const message&) {
    return noSuchCommand();
}
message Handler::cmdReset(const message&) {
    return noSuchCommand();
}
message Handler::cmdGetObj(const message&) {
    return noSuchCommand();
}
message Handler::cmdSetObj(const message&) {
    return noSuchCommand();
}
message Handler::cmdGetAll(const message&) {
    return noSuchCommand();
}
message Handler::cmdAddObj(const message&) {
    return noSuchCommand();
}
message Handler::cmdRemoveObj(const message&) {
    return noSuchCommand();
}
message Handler::cmdMoveObj(const message&) {
    return noSuchCommand();
}
message Handler::cmdGetCount(const message&) {
    return noSuchCommand();
}
message Handler::cmdUnknown(const message&, std::uint32_t) {
    return noSuchCommand();
}
message Handler::cmdShutdown(const message&) {
    return noSuchCommand();
}
message Handler::shouldNotify(std::uint32_t) {
    return {};
}
message Handler::subscribed(const message&) {
    return {};
}
message Handler::unsubscribed(const message&) {
    return {};
}
message Handler::cmdDisconnected(const Path&) {
    return {};
}
message Handler::notifiesSent() {
    return {};
}
message Handler::getObject(std::uint32_t) {
    return errorMsg(error::noSuchObject, "no such object");
}
message Handler::getObjectCount() {
    return noSuchCommand();
}
message Handler::checkPolicy(const message&) {
    return {};
}

}  // namespace tk
