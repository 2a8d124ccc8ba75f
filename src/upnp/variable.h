#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "upnp/callback.h"

namespace gateway {

/// What kind of value a variable has, by its code.
enum class VariableType : std::int32_t {
    ui4 = 0,  // unsigned number of 32 bits
    ui2 = 1,  // unsigned number of 16 bits, as of ports
    string = 2,
    boolean = 3,
};

/// One state variable of a service: its type and limits, by which arguments are checked, and its value, if it
/// has one.
class Variable {
public:
    /// A text variable without a value. An empty list allows every text.
    Variable(std::list<std::string> allowed, bool evented);

    /// Gives the variable a fixed value; a getter is dropped for good.
    void setValue(std::string newValue);

    /// Has the value computed whenever it is read.
    /// Lifetime: the object outlives the variable.
    template <typename T>
    void setValue(T* obj, std::string (T::*method)()) {
        hasValue = true;
        getter = std::make_unique<MethodCallback<T>>(obj, method);
    }

    /// Reads the value into `out`, through the getter if there is one. False, with `out` untouched, when
    /// there is none.
    [[nodiscard]] bool getValue(std::string& out) const;

    bool evented;  // a change of the value is sent to subscribers
    VariableType type = VariableType::string;
    bool rangeSet = false;  // the two limits apply, for the numeric types
    std::uint32_t minimum = 0;
    std::uint32_t maximum = 0;
    std::list<std::string> allowed;
    bool hasValue = false;
    std::string value;  // the fixed one
    std::unique_ptr<ValueGetter> getter;
};

/// True when `text` is acceptable as an argument of the variable's type: a text that is allowed, one of "1",
/// "0", "true", "false", "yes" and "no" for a boolean, or a number within the range that is set. A port is
/// below 65536. An empty text is the number 0, and -1 is the largest number.
[[nodiscard]] bool checkValue(const Variable& variable, const std::string& text);

}  // namespace gateway
