#include "tk/reget.h"

#include "tk/looper.h"

namespace tk {

void Reget::setBase(const message& request) {
    base = request;
    next = unassigned;
    objects.clear();
    queryFailed = false;
    trail = {};
    query();
}

void Reget::query() {
    message request = base;
    if (next != unassigned) request.insert_u32(field::next, next);
    message reply = getLooper()->exchangeCmd(request, base.get_u32(field::command, command::getAll), timeout);
    queryFailed = isError(reply);
    next = reply.get_u32(field::next, unassigned);
    for (message& object : reply.get_message_array_ref(field::objects)) objects.push_back(std::move(object));
    if (next == unassigned || trail.goesOn(next)) return;
    queryFailed = true;  // the walk would never end
    next = unassigned;
}

bool Reget::isEmpty() {
    while (objects.empty() && !queryFailed && more()) query();
    return objects.empty();
}

message Reget::pop() {
    if (isEmpty()) return {};
    message object = std::move(objects.front());
    objects.pop_front();
    return object;
}

bool FullReget::more() {
    return next != unassigned;
}

}  // namespace tk
