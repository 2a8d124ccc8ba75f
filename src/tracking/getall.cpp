#include "tracking/getall.h"

#include "tk/names.h"

tk::message getAllFrom(const tk::Path& path) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, path);
    request.insert_u32(tk::field::command, tk::command::getAll);
    return request;
}
