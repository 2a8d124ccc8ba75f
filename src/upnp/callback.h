#pragma once

#include <string>
#include <vector>

#include "upnp/upnpstatus.h"

namespace gateway {

/// Carries out an action: takes the texts of the in-arguments, and appends those of the out-arguments.
class ActionHandler {
public:
    virtual ~ActionHandler() = default;
    /// Carries out the action once.
    virtual UPNPStatus operator()(const std::vector<std::string>& in, std::vector<std::string>& out) = 0;
};

/// Carries out an action by calling a member function.
/// Lifetime: the object outlives the callback.
template <typename T>
class ActionCallback final : public ActionHandler {
public:
    using Method = UPNPStatus (T::*)(const std::vector<std::string>& in, std::vector<std::string>& out);

    ActionCallback(T* obj, Method method) : obj(obj), method(method) {}
    UPNPStatus operator()(const std::vector<std::string>& in, std::vector<std::string>& out) override {
        return (obj->*method)(in, out);
    }

private:
    T* obj;
    Method method;
};

/// Computes the value of a variable each time it is read.
class ValueGetter {
public:
    virtual ~ValueGetter() = default;
    /// Computes the present value.
    virtual std::string operator()() = 0;
};

/// Computes a value by calling a member function.
/// Lifetime: the object outlives the callback.
template <typename T>
class MethodCallback final : public ValueGetter {
public:
    using Getter = std::string (T::*)();

    MethodCallback(T* obj, Getter getter) : obj(obj), getter(getter) {}
    std::string operator()() override { return (obj->*getter)(); }

private:
    T* obj;
    Getter getter;
};

}  // namespace gateway
