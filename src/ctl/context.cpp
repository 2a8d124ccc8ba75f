#include "ctl/context.h"

namespace ctl {

Session& Context::session() {
    if (opened) return *opened;
    if (!bus) {
        connection = std::make_unique<Connection>(socketPath);
        bus = &connection->bus();
    }
    return opened.emplace(*bus);
}

void Context::print(const Json& value, const std::string& text) {
    if (json)
        out << lineOf(value) << '\n';
    else
        out << text;
}

void Context::print(const Json& value, const Table& table) {
    print(value, json ? std::string() : table.textWithin(terminal));
}

}  // namespace ctl
