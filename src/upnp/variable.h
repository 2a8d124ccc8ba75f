#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <string>

#include "upnp/callback.h"

namespace gateway {

/// The type of a variable's value, by its code.
enum class VariableType : std::int32_t {
    ui4 = 0,  // unsigned number of 32 bits
    ui2 = 1,  // unsigned number of 16 bits, such as a port
    string = 2,
    boolean = 3,
};

/// One state variable of a service: the type and limits that its arguments are checked against, and its
/// value, if it has one.
class Variable {
public:
    /// A text variable without a value. An empty list allows any text.
    Variable(std::list<std::string> allowed, bool evented);

    /// Gives the variable a fixed value, and drops a getter for good.
    void setValue(std::string newValue);

    /// Computes the value by calling `method` of `obj` whenever it is read.
    /// Lifetime: the object outlives the variable.
    template <typename T>
    void setValue(T* obj, std::string (T::*method)()) {
        hasValue = true;
        getter = std::make_unique<MethodCallback<T>>(obj, method);
    }

    /// Reads the value into `out`, through the getter if there is one.
    /// Errors: false when the variable has no value; `out` is untouched then.
    [[nodiscard]] bool getValue(std::string& out) const;

    bool evented;  // true when a change of the value is sent to subscribers
    VariableType type = VariableType::string;
    bool rangeSet = false;  // true when the two limits apply, for the numeric types
    std::uint32_t minimum = 0;
    std::uint32_t maximum = 0;
    std::list<std::string> allowed;
    bool hasValue = false;
    std::string value;  // the fixed one
    std::unique_ptr<ValueGetter> getter;
};

/// True when `text` is acceptable as an argument of the variable's type: an allowed text, one of "1", "0",
/// "true", "false", "yes" and "no" for a boolean, or a number within the range, if one is set. A port is
/// below 65536. An empty text is the number 0, and -1 is the largest number.
[[nodiscard]] bool checkValue(const Variable& variable, const std::string& text);

}  // namespace gateway
