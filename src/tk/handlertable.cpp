#include "tk/handlertable.h"

namespace tk {

std::uint32_t handlerNumber(const Path& path) {
    return path.size() > 1 ? path[1] : 0;
}

Handler* HandlerTable::find(std::uint32_t number) const {
    const auto handler = handlers.find(number);
    return handler == handlers.end() ? nullptr : handler->second;
}

message HandlerTable::answer(const message& request) const {
    const Path& to = request.get_u32_array(field::destination);
    Handler* target = find(handlerNumber(to));
    if (!target) return errorMsg(error::unreachable, "no such handler");
    if (to.size() > 2) return target->handleBrkpath(request);
    message refusal = target->checkPolicy(request);
    return isError(refusal) ? refusal : target->handle(request);
}

}  // namespace tk
