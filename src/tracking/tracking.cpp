#include "tracking/tracking.h"

#include "tk/names.h"

namespace gateway {

Tracking::Tracking(TrackingHost& host, Discovery& discovery, HTTPServer& server)
    : host(host), discovery(discovery), server(server) {}

Tracking::~Tracking() = default;

tk::message Tracking::getAllFrom(const tk::Path& path) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, path);
    request.insert_u32(tk::field::command, tk::command::getAll);
    return request;
}

}  // namespace gateway
