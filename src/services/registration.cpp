#include "services/registration.h"

namespace gateway {

void registerVariable(Service& service, const VariableRow& row) {
    auto variable = std::make_unique<Variable>(row.allowed, row.evented);
    variable->type = row.type;
    if (row.value) variable->setValue(*row.value);
    service.addVar(row.name, variable.release());  // the service owns it from now on
}

std::vector<std::string> joined(std::vector<std::string> first, const std::vector<std::string>& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

}  // namespace gateway
