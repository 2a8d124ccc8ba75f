#pragma once

#include <memory>

#include "tk/amap.h"

namespace tk {

/// An AMap of objects of one type, with typed hooks. T is copyable and default-constructible.
template <typename T>
class Map : public AMap {
public:
    using AMap::AMap;

protected:
    /// Consulted for each add, set and remove: an empty message accepts, an error refuses, and a refused
    /// command leaves the map unchanged.
    virtual message add(T*) { return errorMsg(error::refused, ""); }
    virtual message set(T*, T*) { return errorMsg(error::refused, ""); }
    virtual message remove(T*) { return errorMsg(error::refused, ""); }

    /// Consulted for each object as it is loaded, by id. An error drops the object.
    virtual message load(T*) { return {}; }

    /// Calls `visit(T&)` for every object, by id.
    template <typename Visitor>
    void forEach(Visitor visit) const {
        for (const auto& [id, object] : objectMap()) visit(static_cast<T&>(*object));
    }

private:
    std::unique_ptr<Object> makeObject() const final { return std::make_unique<T>(); }
    std::unique_ptr<Object> copyObject(const Object& source) const final {
        return std::make_unique<T>(static_cast<const T&>(source));
    }
    message addHook(Object& added) final { return add(static_cast<T*>(&added)); }
    message setHook(Object& current, Object& changed) final {
        return set(static_cast<T*>(&current), static_cast<T*>(&changed));
    }
    message removeHook(Object& removed) final { return remove(static_cast<T*>(&removed)); }
    message loadHook(Object& loaded) final { return load(static_cast<T*>(&loaded)); }
};

}  // namespace tk
