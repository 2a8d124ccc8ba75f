#include "hub/localservices.h"

#include <utility>

#include "tk/log.h"
#include "tk/names.h"

namespace router {

namespace {

/// A path of one element means the program's handler 0.
std::uint32_t handlerOf(const tk::Path& path) {
    return path.size() > 1 ? path[1] : 0;
}

}  // namespace

void LocalServices::add(tk::Handler& handler) {
    const tk::Path& path = handler.path();
    services[{path.front(), handlerOf(path)}] = &handler;
}

bool LocalServices::has(std::uint32_t program) const {
    const auto first = services.lower_bound({program, 0});
    return first != services.end() && first->first.first == program;
}

tk::Handler* LocalServices::find(const tk::Path& path) const {
    if (path.empty() || path.size() > 2) return nullptr;
    const auto service = services.find({path.front(), handlerOf(path)});
    return service == services.end() ? nullptr : service->second;
}

tk::message LocalServices::serve(const tk::message& request, uid_t asker) {
    const tk::Path& to = request.get_u32_array(tk::field::destination);
    const auto service = services.find({to.front(), handlerOf(to)});
    if (service == services.end()) return tk::errorMsg(tk::error::unreachable, "no such handler");
    const uid_t outer = std::exchange(served, asker);  // a handler may ask another one meanwhile
    tk::message answer =
        to.size() > 2 ? service->second->handleBrkpath(request) : service->second->checkPolicy(request);
    if (to.size() <= 2 && !tk::isError(answer)) answer = service->second->handle(request);
    served = outer;
    return answer;
}

void LocalServices::disconnected(const tk::Path& client) const {
    std::string text;
    for (const auto& [key, handler] : services)
        if (tk::isError(handler->cmdDisconnected(client), nullptr, &text))
            tk::log("bus: clean-up after ", client.front(), " failed: ", text);
}

}  // namespace router
