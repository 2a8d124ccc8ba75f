#include "hub/trace.h"

#include <algorithm>
#include <variant>

#include "tk/bus.h"
#include "tk/frame.h"
#include "tk/names.h"

namespace hub {

namespace {

constexpr std::size_t wrappingBytes = 1024;  // more than the wrapper's own fields take

std::size_t depthOf(const tk::message& source) {
    std::size_t deepest = 0;
    for (const tk::message::Field& field : source.fields())
        if (const auto* nested = std::get_if<std::vector<tk::message>>(&field.value))
            for (const tk::message& inner : *nested) deepest = std::max(deepest, depthOf(inner));
    return deepest + 1;
}

bool fits(const tk::message& passed) {
    return depthOf(passed) < tk::message::nestingLimit &&
           passed.serialise().size() + wrappingBytes <= tk::frameLimit;
}

tk::message routingOnly(const tk::message& passed) {
    tk::message routing;
    for (const tk::message::Field& field : passed.fields())
        if (field.id >= tk::field::destination && field.id <= tk::field::errorText) routing.insert(field);
    return routing;
}

}  // namespace

tk::message Trace::wrap(const tk::message& passed) {
    tk::message shown;
    shown.insert_message_array(tk::hubfield::traced, {fits(passed) ? passed : routingOnly(passed)});
    tk::stamp(shown, {tk::program::hub}, 0, tk::Kind::notification, tk::command::hubTraced);
    return shown;
}

}  // namespace hub
