#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "tk/message.h"
#include "tk/names.h"

namespace router {

/// One page of a list: the records of at most `size` objects, from the id on that the request's continuation
/// names (from the first one without it), and the id at which the next page starts; the last page has none.
/// `objects` is ordered by id; `record(id, object)` makes the message of one.
template <typename Objects, typename Record>
[[nodiscard]] tk::message pageOf(const Objects& objects, const tk::message& request, std::size_t size,
                                 Record record) {
    const std::uint32_t from = request.get_u32(tk::field::next, tk::unassigned);
    auto object = from == tk::unassigned ? objects.begin() : objects.lower_bound(from);
    std::vector<tk::message> records;
    for (; object != objects.end() && records.size() < size; ++object)
        records.push_back(record(object->first, object->second));
    tk::message page;
    page.insert_message_array(tk::field::objects, std::move(records));
    if (object != objects.end()) page.insert_u32(tk::field::next, object->first);
    return page;
}

}  // namespace router
