#include "ctl/connection.h"

#include "ctl/failure.h"

namespace ctl {

tk::message Connection::NoBus::exchange(const tk::message&, const tk::Path&, std::uint32_t, std::uint32_t) {
    return tk::errorMsg(tk::error::unreachable, "no bus");
}

void Connection::NoBus::post(tk::message) {}

Connection::Connection(const std::string& socketPath, tk::BusConnection::Receiver& receiver) {
    std::string reason;
    connection = tk::BusConnection::open(socketPath, receiver, reason);
    if (!connection) throw Failure("cannot reach routerd at " + socketPath + ": " + reason);
}

}  // namespace ctl
