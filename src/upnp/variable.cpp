#include "upnp/variable.h"

#include <utility>

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
