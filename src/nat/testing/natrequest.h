#pragma once

#include <cstdint>

#include "links/testing/fakekernel.h"
#include "tk/message.h"
#include "tk/names.h"

namespace nat::testing {

/// The request for a new rule, as the gateway daemon sends it.
inline tk::message natRequest(std::uint32_t port, const char* target, std::uint32_t targetPort,
                              std::uint32_t protocol = 6, const tk::Path& from = {80, 0}) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, {20, 5});
    request.insert_bool(tk::field::dynamic, true);
    request.insert_bool(tk::field::disabled, false);
    request.insert_string(39, "dstnat");
    request.insert_bool(419, true);
    request.insert_be32(52, links::testing::address("198.51.100.1"));
    request.insert_be32(53, links::testing::address("198.51.100.1"));
    request.insert_bool(406, true);
    request.insert_u32(9, port);
    request.insert_u32(10, port);
    request.insert_bool(404, true);
    request.insert_u32(11, protocol);
    request.insert_u32(40, 22);
    request.insert_bool(1006, true);
    request.insert_be32(1000, links::testing::address(target));
    request.insert_be32(1001, links::testing::address(target));
    request.insert_bool(1007, true);
    request.insert_u32(1002, targetPort);
    request.insert_u32(1003, targetPort);
    request.insert_u32_array(tk::field::sender, from);
    return request;
}

}  // namespace nat::testing
