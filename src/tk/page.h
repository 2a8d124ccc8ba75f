#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

#include "tk/message.h"
#include "tk/names.h"

namespace tk {

/// One page of a list: the records of at most `size` objects, starting at `object`, and the id at which the
/// next page starts; the last page has no such id. `objects` is ordered by id; `record(id, object)` makes the
/// message of one object.
template <typename Objects, typename Record>
[[nodiscard]] message pageFrom(const Objects& objects, typename Objects::const_iterator object,
                               std::size_t size, Record record) {
    std::vector<message> records;
    for (; object != objects.end() && records.size() < size; ++object)
        records.push_back(record(object->first, object->second));
    message page;
    page.insert_message_array(field::objects, std::move(records));
    if (object != objects.end()) page.insert_u32(field::next, object->first);
    return page;
}

/// The page that a request asks for. It starts at the id in the request's `next` field, or at the first
/// object when there is no such field.
template <typename Objects, typename Record>
[[nodiscard]] message pageOf(const Objects& objects, const message& request, std::size_t size,
                             Record record) {
    const std::uint32_t from = request.get_u32(field::next, unassigned);
    return pageFrom(objects, from == unassigned ? objects.begin() : objects.lower_bound(from), size, record);
}

}  // namespace tk
