#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "hub/hub.h"
#include "tk/fd.h"
#include "tk/status.h"
#include "tk/timer.h"

struct sockaddr_un;
struct ucred;

namespace hub {

/// The socket file of the bus: made when the router is ready to serve, removed when it ends. Lets root and
/// the members of the group "tk" in, and nobody else. The group's number is looked up once, at the opening:
/// a slow directory service never stops the hub.
class Listener {
public:
    /// Lifetime: the hub outlives the listener.
    explicit Listener(Hub& hub) : hub(hub) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    /// Does nobody accept connections at `path`?
    /// Errors: when some process does, or may do so.
    static tk::Status checkFree(const std::string& path);
    /// Listens at `path`, whose folder is made when it is missing, for everybody to pass through. A file that
    /// a former process left is replaced.
    /// Errors: when another process listens there or may do so, or the system refuses.
    tk::Status open(const std::string& path);
    /// Takes no connections any more, and removes the file. The destructor does it too.
    void close();

private:
    void ready(int fd, std::uint32_t events);
    tk::Status bindTo(const std::string& path);
    tk::Status makeFile(const std::string& path, const sockaddr_un& address);
    [[nodiscard]] bool mayCall(int peerSocket, const ucred& peer) const;

    Hub& hub;
    std::string boundPath;
    std::optional<gid_t> group;  // "tk", as it was when the listener was opened
    tk::Fd socket;
    tk::Watch watch;
};

}  // namespace hub
