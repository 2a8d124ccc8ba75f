#include "contract/history.h"

#include <vector>

#include "tk/names.h"

namespace contract {

namespace {

tk::message firstOf(const std::vector<tk::message>& list) {
    return list.empty() ? tk::message() : list.front();
}

}  // namespace

tk::message UndoRecord::toMessage() const {
    tk::message out;
    out.insert_u32(tk::field::objectId, id);
    out.insert_message_array(tk::undofield::request, {request});
    out.insert_message_array(tk::undofield::inverse, {inverse});
    out.insert_string(tk::undofield::description, description);
    out.insert_u32(historyfield::program, program);
    out.insert_u64(historyfield::time, time);
    out.insert_u32_array(historyfield::path, path);
    return out;
}

UndoRecord UndoRecord::fromMessage(const tk::message& source) {
    return {.id = source.get_u32(tk::field::objectId),
            .request = firstOf(source.get_message_array(tk::undofield::request)),
            .inverse = firstOf(source.get_message_array(tk::undofield::inverse)),
            .description = source.get_string(tk::undofield::description),
            .program = source.get_u32(historyfield::program),
            .time = source.get_u64(historyfield::time),
            .path = source.get_u32_array(historyfield::path)};
}

}  // namespace contract
