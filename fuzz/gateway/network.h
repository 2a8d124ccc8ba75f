#pragma once

#include <netinet/in.h>
#include <sys/epoll.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

/// The kernel's sockets, in memory. The linker leads the daemon's calls here (--wrap), so that an input is cheap,
/// each of its runs is the same, and calls fail on request. Descriptors are as low as possible and so soon used
/// again, as the kernel's are. Calls on other descriptors go on to the kernel.
namespace fuzz {

/// One TCP connection between the process and a host of the LAN.
struct Link {
    bool isOutgoing = false;
    std::string device;      // of the listener that it came in on
    std::uint32_t host = 0;  // network order
    std::uint16_t port = 0;  // of an outgoing one: where it leads

    enum class State : std::uint8_t { connecting, up, refused };
    State state = State::up;
    std::string sent;  // by the host
    std::size_t taken = 0;
    bool hostEnded = false;                     // the host closed its side
    bool hostReset = false;                     // the host is gone
    bool processSawEnd = false;                 // a read said that nothing follows, or failed
    std::string answer;                         // what the process sent
    std::size_t room = std::size_t{64} * 1024;  // what it may send before the host reads
    bool sendFailed = false;
    bool processClosed = false;

    bool isAccepted = false;
    int descriptor = -1;  // of the process; -1 before it is accepted
    std::uint64_t openedAt = 0;
};

/// The calls that can be made to fail.
enum class Call : std::uint8_t {
    socket,
    setsockopt,
    bind,
    listen,
    accept,
    connect,
    receive,
    send,
    control,
    count
};

class Network {
public:
    /// There is one at a time; the calls lead to it.
    /// Lifetime: `now` is asked for as long as the network exists.
    explicit Network(std::function<std::uint64_t()> now);
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;
    ~Network();

    // What hosts do.

    /// Connects from a host to the listener of a device.
    /// Errors: null when nobody listens there, or its queue is full.
    Link* connect(const std::string& device, std::uint32_t host);
    /// Sends a datagram to the SSDP socket of a device. False when there is none.
    bool sendDatagram(const std::string& device, std::uint32_t host, const std::string& bytes);
    /// What happens to the connections that the process makes from now on.
    enum class Peers : std::uint8_t { answer, accept, hang, refuse, unreachable };
    Peers peers = Peers::answer;

    /// Makes the call of this kind after the next `after` ones fail once.
    void failOnce(Call call, std::size_t after, int error) { failures[call] = {after, error}; }
    /// True when such a failure was met since this was last set to false.
    bool hasFailed = false;
    /// True when events are reported in the order of falling descriptors.
    bool isReversed = false;

    // What can be seen.

    struct Datagram {
        int descriptor = -1;   // that it was sent from
        std::uint32_t to = 0;  // network order
        std::string text;      // empty when sending it failed
    };
    /// Called when a datagram was sent, and when bytes were sent on a connection or read from one.
    std::function<void(const Datagram&)> onDatagram;
    std::function<void(Link&)> onSend;
    std::function<void(Link&)> onReceive;
    /// Called when a descriptor is closed.
    std::function<void(int descriptor)> onClose;

    /// All connections there were, in order.
    const std::vector<std::unique_ptr<Link>>& all() const { return links; }
    /// The descriptors that are open, without those of epoll; and those that an epoll set watches.
    std::vector<int> openDescriptors() const;
    std::vector<int> watchedDescriptors() const;
    /// The listeners that the process has looked away from, having no room for a client; and until when it may.
    std::vector<int> restingListeners() const;
    std::uint64_t restsUntil() const { return restEnds; }
    /// True when a connection waits at such a listener.
    bool isKeptWaiting(const Link& link) const;
    /// The connection of a descriptor; null when it has none.
    Link* linkOf(int descriptor) const;
    /// True when some watched descriptor is ready for what it is watched for.
    bool isAnythingReady() const;
    /// Everything that was written to the standard output since this was last emptied.
    std::string output;

    // The calls of the process. All return as the kernel does, and set errno.

    bool owns(int descriptor) const;
    int socket(int type);
    int setOption(int descriptor, int level, int option, const void* value, std::size_t size);
    int bind(int descriptor, std::uint16_t port);
    int listen(int descriptor);
    int accept(int descriptor, sockaddr_in* peer);
    int connectTo(int descriptor, const sockaddr_in& target);
    std::ptrdiff_t receive(int descriptor, char* bytes, std::size_t size, sockaddr_in* from);
    std::ptrdiff_t send(int descriptor, const char* bytes, std::size_t size, const sockaddr_in* to);
    /// Sets whether calls on a descriptor wait. None ever does here.
    int control();
    int close(int descriptor);
    int makeSet();
    int changeSet(int set, int operation, int descriptor, const epoll_event* event);
    int wait(int set, epoll_event* events, int size);

private:
    struct Socket {
        enum class Kind : std::uint8_t { datagram, stream, listener, set };
        Kind kind = Kind::stream;
        std::string device;
        std::uint16_t port = 0;
        Link* link = nullptr;
        std::deque<Link*> queue;                                     // of a listener
        bool isResting = false;                                      // a listener
        std::deque<std::pair<std::uint32_t, std::string>> received;  // of a datagram socket
        std::map<int, epoll_event> watched;                          // of a set
    };
    struct Failure {
        std::size_t after = 0;
        int error = 0;
    };

    Socket* find(int descriptor) const;
    Socket* find(Socket::Kind kind, const std::string& device, std::uint16_t port) const;
    int add(Socket::Kind kind);
    bool fails(Call call);
    std::uint32_t readiness(const Socket& socket) const;
    std::ptrdiff_t receiveDatagram(Socket& socket, char* bytes, std::size_t size, sockaddr_in* from);
    std::ptrdiff_t receiveStream(Link& link, char* bytes, std::size_t size);
    std::ptrdiff_t sendStream(Link& link, const char* bytes, std::size_t size);

    std::function<std::uint64_t()> now;
    std::vector<std::unique_ptr<Socket>> sockets;  // by descriptor, from the lowest on
    std::vector<std::unique_ptr<Link>> links;
    std::map<Call, Failure> failures;
    std::uint64_t restEnds = 0;
};

/// Leads the process's calls on sockets to a network, as calls.cpp does; null leads all of them to the kernel
/// again.
void lead(Network* network);

}  // namespace fuzz
