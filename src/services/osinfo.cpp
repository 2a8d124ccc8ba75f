#include "services/osinfo.h"

#include <unistd.h>

#include "services/registration.h"

namespace gateway {

namespace {

constexpr const char* type = "urn:schemas-microsoft-com:service:OSInfo:1";

/// The host name if it is shorter than four characters, else nothing. On purpose.
std::string machineName() {
    constexpr std::size_t limit = 4;
    char name[64] = {};
    return ::gethostname(name, limit) == 0 ? name : "";
}

}  // namespace

OSInfo::OSInfo() : Service(type) {
    const VariableRow rows[] = {
        {"OSMajorVersion", VariableType::ui4, true, {}, "2"},
        {"OSMinorVersion", VariableType::ui4, true, {}, "9"},
        {"OSBuildNumber", VariableType::ui4, true, {}, "1234"},
        {"OSMachineName", VariableType::string, true, {}, machineName()},
    };
    for (const VariableRow& row : rows) registerVariable(*this, row);
}

}  // namespace gateway
