#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <vector>

#include "hub/budgets.h"
#include "hub/peer.h"
#include "tk/budget.h"
#include "tk/fd.h"
#include "tk/message.h"
#include "tk/names.h"
#include "tk/status.h"

namespace hub {

/// The connections to the hub by their client numbers, the programs among them, and what is kept for each.
class Peers {
public:
    /// How many connections there may be.
    static constexpr std::size_t limit = 256;
    /// How many of them are reserved for root and the users that run programs.
    static constexpr std::size_t reserved = 32;
    /// How many connections one user other than root may have.
    static constexpr std::size_t limitPerUser = 64;

    /// Checks that there is room for another connection of `user`, who may run programs.
    tk::Status checkRoom(uid_t user, bool runsPrograms) const;
    /// Takes over a connection, and gives it a number.
    void add(tk::Fd socket, const Credentials& credentials, Peer::Owner& owner);
    /// Gives up a connection to the caller, and forgets which program it was.
    [[nodiscard]] std::unique_ptr<Peer> take(std::uint32_t number);
    /// Ends all connections.
    void clear();

    /// Registers a connection as `program`, which no other connection is.
    void enrol(Peer& peer, std::uint32_t program);
    /// A program gives up its number.
    void resign(Peer& peer);

    /// The connection with this number; null when there is none, as in the next two.
    /// Lifetime: until the connection ends.
    Peer* find(std::uint32_t number) const;
    /// The connection that is this program.
    Peer* findProgram(std::uint32_t program) const;
    /// The connection that a path leads to. A program is also found by its client number: so it still gets
    /// what it asked for before it registered.
    Peer* findAt(const tk::Path& path) const;

    /// All connections, in the order of their numbers.
    /// Lifetime: of each, until it ends.
    [[nodiscard]] std::vector<Peer*> all() const;

    /// How many connections there are.
    std::size_t count() const { return peers.size(); }
    /// Sets the number that the next connection gets, if nobody has it.
    void setNextNumber(std::uint32_t number) { nextNumber = number; }

    /// The budget that pays for the requests of this connection. For numbers without a connection, such as
    /// that of the hub's own handlers, root pays.
    tk::Budget& payer(std::uint32_t number);
    /// The account of a user, or of one connection of root.
    /// Lifetime: until the next connection comes.
    tk::Budget& budgetOf(uid_t user, std::uint32_t number) { return budgets.of(user, number); }

private:
    [[nodiscard]] std::uint32_t newNumber();

    Budgets budgets;
    std::uint32_t nextNumber = tk::program::firstClient;
    std::map<std::uint32_t, std::uint32_t> programs;       // registered number to client number
    std::map<std::uint32_t, std::unique_ptr<Peer>> peers;  // by client number
};

}  // namespace hub
