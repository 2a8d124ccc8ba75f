#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "tk/allocator.h"
#include "tk/handler.h"
#include "tk/object.h"
#include "tk/store.h"

namespace tk {

/// A handler that keeps a map of configuration objects, persisted in a store, and answers the commands on
/// them: get, set, get all, add, remove, count.
///
/// A change is first written beside the store's file, then offered to the hook, which may refuse it, then put
/// in place. So a change that cannot be written is refused before anything has happened.
class AMap : public Handler {
public:
    using Objects = std::map<std::uint32_t, std::unique_ptr<Object>>;

    /// Ids go from `lowest` to `highest`.
    AMap(const std::string& storePath, std::uint32_t lowest, std::uint32_t highest);
    ~AMap() override;

    /// Loads the objects from the store. Call once, before the loop runs.
    void init();

    /// The ids of the objects, handed out as by an Allocator.
    [[nodiscard]] std::uint32_t allocNewID() { return ids.allocNewID(); }
    [[nodiscard]] bool allocID(std::uint32_t id) { return ids.allocID(id); }
    void freeID(std::uint32_t id) { ids.freeID(id); }
    bool isAllocID(std::uint32_t id) const { return ids.isAllocID(id); }

    /// The operations on objects, as declared by Handler.
    message cmdGetObj(const message& request) override;
    message cmdSetObj(const message& request) override;
    message cmdGetAll(const message& request) override;
    message cmdAddObj(const message& request) override;
    message cmdRemoveObj(const message& request) override;
    message cmdGetCount(const message& request) override;
    message getObject(std::uint32_t id) override;
    message getObjectCount() override;

protected:
    /// All objects, by id.
    const Objects& objectMap() const { return objects; }

    /// A new object, and a copy of one, of the type that the map holds.
    virtual std::unique_ptr<Object> makeObject() const = 0;
    virtual std::unique_ptr<Object> copyObject(const Object& source) const = 0;
    /// The hooks: an empty message accepts, an error refuses.
    virtual message addHook(Object& added) = 0;
    virtual message setHook(Object& current, Object& changed) = 0;
    virtual message removeHook(Object& removed) = 0;
    /// Consulted by init() for each stored object, by id. A refused object is dropped, from the store too,
    /// with a log line.
    virtual message loadHook(Object& loaded) = 0;

private:
    static message configOf(const Object& object);
    static message recordOf(const Object& object);
    /// Drops a staged change that the hook refused.
    [[nodiscard]] message refuse(bool staged, message verdict);
    /// Puts a staged change in place.
    [[nodiscard]] message commit(bool staged);
    [[nodiscard]] message storeAndAdd(Object& added, std::uint32_t id);
    void drop(const Object& refused, const message& verdict);
    void tellChange(const Object& object, bool deleted);
    void recordUndo(const Object& object, const message& request, std::uint32_t inverseCommand,
                    const message& inverse, const char* what);

    Store store;
    Allocator ids;
    Objects objects;
};

}  // namespace tk
