#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "hub/access.h"
#include "tk/message.h"

namespace fuzz {

/// What the hub has to do, said once more with nothing of its code but the parsers of messages: which message
/// reaches whom, in which order, and who is dropped. It keeps no budgets: the caller says when one is full.
class HubModel {
public:
    static constexpr std::uint32_t router = 20;        // the program of the hub's process
    static constexpr std::size_t waitingLimit = 1024;  // requests of one connection, and subscriptions

    /// A message that is on its way. Of what the hub says itself the error's text is its own affair.
    struct Expected {
        tk::message content;
        bool isOfHub = false;
    };
    using Heard = std::pair<tk::Path, std::uint32_t>;  // a sender and a command
    struct Peer {
        uid_t user = 0;
        std::uint32_t number = 0;
        std::uint32_t program = 0;  // 0: none
        std::uint32_t former = 0;
        bool isDropped = false;
        bool isOpen = true;
        bool traces = false;
        std::set<Heard> subscriptions;
        std::string unfinished;  // frame
        std::deque<Expected> expected;
        std::size_t unread = 0;                        // bytes
        std::map<std::uint32_t, std::size_t> waiting;  // ends that have to come, by number
        std::uint32_t name() const { return program ? program : number; }
    };

    /// A new connection, which is the last of the list.
    void connect(uid_t user);
    /// How many bytes the peer may write before another frame begins; at least 1.
    static std::size_t untilFrameEnds(const Peer& peer, std::string_view next);
    /// What room there is to keep something for a peer: `refused` when it was seen that there is none. What is passed on
    /// at once, and has no end to wait for, needs none.
    enum class Room : std::uint8_t { some, none, refused };
    /// The peer has sent bytes, of one frame at most.
    void sent(Peer& peer, std::string_view bytes, Room left);
    /// The hub drops the peer; it ends with the step.
    void drop(Peer& peer);
    /// Ends what was dropped.
    void endStep();
    /// The connection has ended.
    void end(Peer& peer);

    void setTable(std::vector<hub::UserRights> rights);
    /// What a reload by an administrator puts into force.
    std::vector<hub::UserRights> nextTable;
    void programFailed(std::uint32_t program);
    void advance(std::uint64_t ticks);

    /// What a handler of the hub's process posts. A request has no number yet.
    void post(tk::message stamped);
    bool isHeard(const tk::Path& from, std::uint32_t command) const;

    std::size_t openCount() const;
    bool isAwaited(std::uint32_t program) const { return awaited.contains(program); }
    /// What the hub has to keep for an open peer, and so to charge to its user: the connection, an unfinished frame,
    /// subscriptions, and requests that have no end yet.
    /// Units: bytes; at least so many.
    std::size_t keptFor(const Peer& peer) const;
    /// True when a request of this user waits for a program.
    bool isAwaitedBy(uid_t user) const;

    std::deque<Peer> peers;  // their numbers count from 1000
    std::deque<Expected> ownEnds;
    std::vector<std::uint32_t> gone;        // what handlers are told of clients that ended
    std::vector<std::uint32_t> registered;  // what the starter is told
    std::size_t left = 0;                   // how often the watcher is told of a program's end

private:
    using Key = std::pair<std::uint32_t, std::uint32_t>;  // requester (0: the hub's handlers) and number
    struct Pending {
        std::uint32_t callee = 0;
        tk::message request;
        std::uint64_t round = 0;
    };
    struct Awaited {
        std::uint32_t requester = 0;
        tk::message request;
        std::uint64_t round = 0;
        std::size_t bytes = 0;  // of the request
    };

    void take(Peer& from, tk::message received);
    void route(Peer& from, const tk::message& request);
    void command(Peer& from, const tk::message& request);
    void serve(Peer& from, const tk::message& request);
    std::uint32_t registration(Peer& from, const tk::message& request);
    std::uint32_t resignation(const Peer& from, const tk::message& request) const;
    std::uint32_t subscription(Peer& from, const tk::message& request);
    void afterCommand(Peer& from, std::uint32_t number);
    tk::message programs() const;
    void forward(std::uint32_t requester, Peer& callee, const tk::message& request);
    void activate(std::uint32_t requester, const tk::message& request);
    void answer(const tk::message& request, const tk::message& reply);
    void refuse(const tk::message& request, std::uint32_t code);
    void takeEnd(const Peer& from, const tk::message& end);
    void give(Peer& to, const Expected& what);
    void giveEnd(const Expected& end);
    void publish(const tk::message& notification);
    void trace(const Expected& passed);
    void expire();
    bool waits(std::uint32_t requester) const;
    /// True when the requester waits for a program to start.
    bool awaits(std::uint32_t requester) const;
    Peer* find(std::uint32_t number);
    Peer* findProgram(std::uint32_t program);
    Peer* findAt(const tk::Path& path);

    std::vector<hub::UserRights> table;
    std::map<Key, Pending> pending;
    std::map<std::uint32_t, std::deque<Awaited>> awaited;  // by program
    std::vector<Peer*> dropped;
    std::uint32_t ownNumber = 0;
    std::uint64_t round = 0;
    std::uint64_t now = 0;  // ticks
    std::optional<std::uint64_t> expiresAt;
    Room room = Room::some;
};

/// A handler's path that the hub's process serves.
bool isServed(const tk::Path& path);
/// Programs that somebody knows how to start.
bool isStartable(std::uint32_t program);

}  // namespace fuzz
