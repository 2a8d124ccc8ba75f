#include "upnp/variable.h"

#include <algorithm>
#include <utility>

#include "net/convert.h"

namespace gateway {

namespace {

constexpr std::uint64_t numberEnd = std::uint64_t{1} << 32;
constexpr std::uint64_t portEnd = 65536;

bool isAllowed(const Variable& variable, const std::string& text) {
    const auto& allowed = variable.allowed;
    return allowed.empty() || std::find(allowed.begin(), allowed.end(), text) != allowed.end();
}

bool isBoolean(const std::string& text) {
    constexpr const char* words[] = {"1", "0", "true", "false", "yes", "no"};
    return std::find(std::begin(words), std::end(words), text) != std::end(words);
}

bool isNumber(const Variable& variable, const std::string& text, std::uint64_t end) {
    std::uint32_t value = 0;
    if (!isUnsigned(text, value)) return false;
    if (variable.rangeSet && (value < variable.minimum || value > variable.maximum)) return false;
    return value < end;
}

}  // namespace

Variable::Variable(std::list<std::string> allowed, bool evented)
    : evented(evented), allowed(std::move(allowed)) {}

void Variable::setValue(std::string newValue) {
    hasValue = true;
    getter.reset();
    value = std::move(newValue);
}

bool Variable::getValue(std::string& out) const {
    if (!hasValue) return false;
    out = getter ? (*getter)() : value;
    return true;
}

bool checkValue(const Variable& variable, const std::string& text) {
    switch (variable.type) {
        case VariableType::string:
            return isAllowed(variable, text);
        case VariableType::boolean:
            return isBoolean(text);
        case VariableType::ui4:
            return isNumber(variable, text, numberEnd);
        case VariableType::ui2:
            return isNumber(variable, text, portEnd);
    }
    return false;  // not the code of a type
}

}  // namespace gateway
