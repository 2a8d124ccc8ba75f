#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "hub/hub.h"
#include "tk/fd.h"
#include "tk/status.h"
#include "tk/timer.h"

struct sockaddr_un;
struct ucred;

namespace hub {

/// The socket file of the bus: made when the router is ready to serve, removed when it ends. Admits root and
/// the members of the group "tk", and nobody else. The group's number is looked up once, when the socket is
/// opened: so a slow directory service never stops the hub.
class Listener {
public:
    /// Lifetime: the hub outlives the listener.
    explicit Listener(Hub& hub) : hub(hub) {}
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;
    ~Listener();

    /// Checks that nobody accepts connections at `path`.
    /// Errors: some process does, or may.
    static tk::Status checkFree(const std::string& path);
    /// Listens at `path`. Makes the folder if it is missing, open for everybody to enter. Replaces a file
    /// that an earlier process left.
    /// Errors: another process listens there or may, or the system refuses.
    tk::Status open(const std::string& path);
    /// Takes no more connections, and removes the file. The destructor does so too.
    void close();

private:
    void ready(int fd, std::uint32_t events);
    tk::Status bindTo(const std::string& path);
    tk::Status makeFile(const std::string& path, const sockaddr_un& address);
    [[nodiscard]] bool mayCall(int peerSocket, const ucred& peer) const;

    Hub& hub;
    std::string boundPath;
    std::optional<gid_t> group;  // "tk", as it was at open()
    tk::Fd socket;
    tk::Watch watch;
};

}  // namespace hub
