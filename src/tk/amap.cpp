#include "tk/amap.h"

#include <utility>

#include "tk/answer.h"
#include "tk/log.h"
#include "tk/page.h"

namespace tk {

namespace {

constexpr std::uint32_t storeRevision = 1;

/// How many objects one reply to get-all carries.
constexpr std::size_t pageSize = 1024;

message noSuchObject() {
    return errorMsg(error::noSuchObject, "no such object");
}

}  // namespace

AMap::AMap(const std::string& storePath, std::uint32_t lowest, std::uint32_t highest)
    : store(storePath, storeRevision), ids(lowest, highest) {}

AMap::~AMap() = default;

void AMap::init() {
    const std::map<std::uint32_t, message> stored = store.all();
    for (const auto& [id, config] : stored) {
        if (!ids.allocID(id)) continue;  // out of range: useless, but not ours to drop
        std::unique_ptr<Object> object = makeObject();
        object->setConfig(config, 0);
        object->id = id;
        if (const message verdict = loadHook(*object); isError(verdict))
            drop(*object, verdict);
        else
            objects.emplace(id, std::move(object));
    }
}

/// Drops an object from the store: else it would come to life once what it clashes with is removed.
void AMap::drop(const Object& refused, const message& verdict) {
    log(refused.getName(), " ", refused.id, " dropped: ", getError(verdict));
    ids.freeID(refused.id);
    if (const Status removed = store.remove(refused.id); !removed.isOk()) log(removed.reason());
}

message AMap::configOf(const Object& object) {
    message config;
    object.getConfig(config, 0);
    return config;
}

message AMap::recordOf(const Object& object) {
    message record;
    record.insert_u32(field::objectId, object.id);
    object.getConfig(record, 0);
    return record;
}

message AMap::getObject(std::uint32_t id) {
    const auto object = objects.find(id);
    return object == objects.end() ? noSuchObject() : recordOf(*object->second);
}

message AMap::getObjectCount() {
    return countReply(objects.size());
}

message AMap::cmdGetObj(const message& request) {
    return getObject(request.get_u32(field::objectId, unassigned));
}

message AMap::cmdGetCount(const message&) {
    return getObjectCount();
}

message AMap::cmdGetAll(const message& request) {
    return pageFrom(objects, objects.lower_bound(request.get_u32(field::next, 0)), pageSize,
                    [](std::uint32_t, const std::unique_ptr<Object>& object) { return recordOf(*object); });
}

message AMap::refuse(bool staged, message verdict) {
    if (staged) store.discard();
    return verdict;
}

message AMap::commit(bool staged) {
    return staged ? answerOf(store.commit(), error::failed) : message();
}

message AMap::storeAndAdd(Object& added, std::uint32_t id) {
    const bool storable = added.isStorable();
    message failure = storable ? answerOf(store.stage(id, configOf(added)), error::failed) : message();
    if (isError(failure)) return failure;
    message verdict = addHook(added);
    if (isError(verdict)) return refuse(storable, std::move(verdict));
    failure = commit(storable);
    if (isError(failure)) (void)removeHook(added);  // takes back what the hook began
    return failure;
}

message AMap::cmdAddObj(const message& request) {
    std::unique_ptr<Object> added = makeObject();
    added->setConfig(request, 0);
    const std::uint32_t id = ids.allocNewID();
    if (id == unassigned) return errorMsg(error::busy, "no id is free");
    message failure = storeAndAdd(*added, id);
    if (isError(failure)) {
        ids.freeID(id);
        return failure;
    }
    added->id = id;
    const Object& object = *objects.emplace(id, std::move(added)).first->second;
    tellChange(object, false);
    message inverse;
    inverse.insert_u32(field::objectId, id);
    recordUndo(object, request, command::removeObject, inverse, " added");
    message reply;
    reply.insert_u32(field::objectId, id);
    return reply;
}

message AMap::cmdSetObj(const message& request) {
    const auto entry = objects.find(request.get_u32(field::objectId, unassigned));
    if (entry == objects.end()) return noSuchObject();
    Object& current = *entry->second;
    const message inverse = recordOf(current);
    const std::unique_ptr<Object> changed = copyObject(current);
    changed->setConfig(request, 0);
    const bool storable = changed->isStorable();
    message failure =
        storable ? answerOf(store.stage(changed->id, configOf(*changed)), error::failed) : message();
    if (isError(failure)) return failure;
    message verdict = setHook(current, *changed);
    if (isError(verdict)) return refuse(storable, std::move(verdict));
    failure = commit(storable);
    if (isError(failure)) {
        (void)setHook(*changed, current);  // back to what it was
        return failure;
    }
    current.setConfig(configOf(*changed), 0);
    tellChange(current, false);
    recordUndo(current, request, command::setObject, inverse, " changed");
    return {};
}

message AMap::cmdRemoveObj(const message& request) {
    const auto entry = objects.find(request.get_u32(field::objectId, unassigned));
    if (entry == objects.end()) return noSuchObject();
    Object& current = *entry->second;
    const bool storable = current.isStorable();
    message failure = storable ? answerOf(store.stageRemoval(current.id), error::failed) : message();
    if (isError(failure)) return failure;
    message verdict = removeHook(current);
    if (isError(verdict)) return refuse(storable, std::move(verdict));
    failure = commit(storable);
    if (isError(failure)) {
        (void)addHook(current);  // back to what it was
        return failure;
    }
    const std::unique_ptr<Object> removed = std::move(entry->second);
    objects.erase(entry);
    ids.freeID(removed->id);
    tellChange(*removed, true);
    recordUndo(*removed, request, command::addObject, configOf(*removed), " removed");
    return {};
}

void AMap::tellChange(const Object& object, bool deleted) {
    if (!object.needNotify() || isError(shouldNotify(object.id))) return;
    message data;
    object.getConfig(data, 0);
    if (deleted) markDeleted(data);
    notifyChange(object.id, data);
    (void)notifiesSent();  // the base has nothing to say
}

void AMap::recordUndo(const Object& object, const message& request, std::uint32_t inverseCommand,
                      const message& inverse, const char* what) {
    if (!object.isUndoable()) return;
    message undo;
    undo.insert_u32(field::command, inverseCommand);
    for (const message::Field& field : inverse.fields()) undo.insert(field);
    sendUndo(request, undo, object.getName() + what);
}

}  // namespace tk
