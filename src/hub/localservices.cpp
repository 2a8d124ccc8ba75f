#include "hub/localservices.h"

#include <utility>

#include "tk/log.h"
#include "tk/names.h"

namespace hub {

tk::Handler* LocalServices::find(const tk::Path& path) const {
    if (path.empty() || path.size() > 2) return nullptr;
    const auto program = programs.find(path.front());
    return program == programs.end() ? nullptr : program->second.find(tk::handlerNumber(path));
}

tk::message LocalServices::serve(const tk::message& request, uid_t asker) {
    const auto program = programs.find(request.get_u32_array(tk::field::destination).front());
    if (program == programs.end()) return tk::errorMsg(tk::error::unreachable, "no such handler");
    const uid_t outer = std::exchange(served, asker);  // calls may be nested
    tk::message answer = program->second.answer(request);
    served = outer;
    return answer;
}

void LocalServices::disconnected(const tk::Path& client) const {
    std::string text;
    for (const auto& [program, handlers] : programs)
        for (const auto& [number, handler] : handlers.all())
            if (tk::isError(handler->cmdDisconnected(client), nullptr, &text))
                tk::log("bus: clean-up after ", client.front(), " failed: ", text);
}

}  // namespace hub
