#include "hub/listener.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <vector>

#include "tk/account.h"
#include "tk/names.h"
#include "tk/runner.h"

namespace hub {

namespace {

constexpr int backlog = 256;  // as many as there may be
constexpr int acceptsPerTurn = 16;
constexpr std::size_t groupLimit = 65536;  // the kernel's own limit of groups per process

[[nodiscard]] bool makeAddress(const std::string& path, sockaddr_un& address) {
    if (path.size() >= sizeof address.sun_path) return false;
    address.sun_family = AF_UNIX;
    std::copy(path.begin(), path.end(), address.sun_path);
    return true;
}

const sockaddr* generic(const sockaddr_un& address) {
    return reinterpret_cast<const sockaddr*>(&address);
}

bool isInGroup(int socket, const ucred& peer, gid_t wanted) {
    if (peer.gid == wanted) return true;
    socklen_t size = 0;
    (void)::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, nullptr, &size);  // fails, and gives the size
    if (size > groupLimit * sizeof(gid_t)) return false;
    std::vector<gid_t> groups(size / sizeof(gid_t));
    if (groups.empty() || ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) != 0)
        return false;
    return std::find(groups.begin(), groups.end(), wanted) != groups.end();
}

/// The file may be the group's already: by the process's own group, or by that of a folder which hands it on.
bool giveToGroup(const std::string& path, gid_t group) {
    struct stat made {};
    if (::lstat(path.c_str(), &made) == 0 && made.st_gid == group) return true;
    return ::chown(path.c_str(), static_cast<uid_t>(-1), group) == 0;
}

/// Reports no failure: the bind that follows does.
void makeFolderOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos || slash == 0) return;
    const mode_t mask = ::umask(0022);  // else the group might not reach the bus
    (void)::mkdir(path.substr(0, slash).c_str(), 0755);
    ::umask(mask);
}

}  // namespace

Listener::~Listener() {
    close();
}

void Listener::close() {
    watch.stop();
    socket.reset();
    if (!boundPath.empty()) ::unlink(boundPath.c_str());
    boundPath.clear();
}

tk::Status Listener::checkFree(const std::string& path) {
    sockaddr_un address{};
    if (!makeAddress(path, address)) return {};
    const tk::Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const bool isServed = probe.isOpen() && ::connect(probe.get(), generic(address), sizeof address) == 0;
    // A listener whose queue is full answers EAGAIN: it is alive.
    if (isServed || errno == EAGAIN)
        return tk::Status::failure(path + ": another router is running; end that one first");
    return errno == ECONNREFUSED || errno == ENOENT ? tk::Status() : tk::Status::ofErrno(path, errno);
}

tk::Status Listener::open(const std::string& path) {
    if (tk::Status bound = bindTo(path); !bound.isOk()) return bound;
    boundPath = path;
    if (::listen(socket.get(), backlog) != 0) return tk::Status::ofErrno(path, errno);
    watch.start<Listener, &Listener::ready>(socket.get(), *this, tk::readable, tk::Runner::Priority::urgent);
    return {};
}

tk::Status Listener::bindTo(const std::string& path) {
    sockaddr_un address{};
    if (!makeAddress(path, address)) return tk::Status::failure(path + ": too long for a socket");
    makeFolderOf(path);
    if (tk::Status isFree = checkFree(path); !isFree.isOk()) return isFree;
    // First what may fail or take long, while the former process's file is still there.
    const auto found = tk::findBusGroup();  // may take long: never while the bus serves
    if (!found.isOk()) return found.status();
    group = *found;
    socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    return socket.isOpen() ? makeFile(path, address) : tk::Status::ofErrno(path, errno);
}

/// Puts the socket in its place, where it replaces one that nobody serves.
tk::Status Listener::makeFile(const std::string& path, const sockaddr_un& address) {
    struct stat old {};
    if (::lstat(path.c_str(), &old) == 0 && S_ISSOCK(old.st_mode)) ::unlink(path.c_str());
    // mode 0660 from the start: never open for more, not even for a moment
    const mode_t mask = ::umask(0117);
    const bool isBound = ::bind(socket.get(), generic(address), sizeof address) == 0;
    ::umask(mask);  // cannot fail, and leaves errno alone
    if (!isBound) return tk::Status::ofErrno(path, errno);
    if (!group || giveToGroup(path, *group)) return {};
    tk::Status refused = tk::Status::ofErrno(
        path + " cannot be given to the group tk, in which the router's user has to be", errno);
    ::unlink(path.c_str());
    return refused;
}

bool Listener::mayCall(int peerSocket, const ucred& peer) const {
    return peer.uid == 0 || (group && isInGroup(peerSocket, peer, *group));
}

void Listener::ready(int fd, std::uint32_t) {
    for (int i = 0; i < acceptsPerTurn; ++i) {
        tk::Fd accepted(::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!accepted.isOpen()) {
            if (tk::isShortage(errno)) tk::getRunner()->restSocket(fd);  // the callers stay in the queue
            return;
        }
        ucred peer{};
        socklen_t size = sizeof peer;
        if (::getsockopt(accepted.get(), SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) continue;
        if (mayCall(accepted.get(), peer)) {
            hub.adopt(std::move(accepted), {peer.pid, peer.uid, peer.gid});
            continue;
        }
        hub.turnAway(accepted, peer.uid, tk::error::refused,
                     "only root and members of the group tk may use the bus");
    }
}

}  // namespace hub
