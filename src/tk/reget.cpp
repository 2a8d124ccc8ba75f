#include "tk/reget.h"

#include "tk/looper.h"

namespace tk {

namespace {

constexpr std::size_t pageLimit = 10000;  // far beyond any list

}  // namespace

void Reget::setBase(const message& request) {
    base = request;
    next = unassigned;
    objects.clear();
    queryFailed = false;
    pages = 0;
    query();
}

void Reget::query() {
    message request = base;
    if (next != unassigned) request.insert_u32(field::next, next);
    const std::uint32_t asked = next;
    message reply = getLooper()->exchangeCmd(request, base.get_u32(field::command, command::getAll), timeout);
    queryFailed = isError(reply);
    next = reply.get_u32(field::next, unassigned);
    for (message& object : reply.get_message_array_ref(field::objects)) objects.push_back(std::move(object));
    ++pages;
    if (next == unassigned || (next != asked && pages < pageLimit)) return;
    queryFailed = true;  // pages that lead back to themselves: the walk would never end
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
