#pragma once

#include <cstdint>
#include <string>

#include "tk/message.h"
#include "tk/names.h"

namespace tk {

/// One configuration object of an AMap.
class Object {
public:
    virtual ~Object() = default;
    /// True when the object is kept in its map's store.
    virtual bool isStorable() const { return true; }
    /// True when its changes are recorded in the undo history.
    virtual bool isUndoable() const { return isStorable(); }
    /// True when its changes are told to subscribers.
    virtual bool needNotify() const { return true; }
    /// The object's name in texts for people.
    virtual std::string getName() const { return "item"; }
    /// Writes the object's settings into `out`; the options say what else (0: nothing).
    virtual void getConfig([[maybe_unused]] message& out, [[maybe_unused]] std::uint32_t options) const {}
    /// Reads the object's values; one whose field is absent stays as it is.
    virtual void setConfig([[maybe_unused]] const message& in, [[maybe_unused]] std::uint32_t options) {}

    /// tk::unassigned until the map gives it one.
    std::uint32_t id = unassigned;

protected:
    Object() = default;
    Object(const Object&) = default;
    Object& operator=(const Object&) = default;
};

}  // namespace tk
