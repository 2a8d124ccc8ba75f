#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>

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
    /// How many of them are kept for root and the users that run programs: no other gets the last ones.
    static constexpr std::size_t reserved = 32;
    /// How many connections one user may have that is not root.
    static constexpr std::size_t limitPerUser = 64;

    /// Is there room for another connection of `user`, who runs programs or does not?
    tk::Status checkRoom(uid_t user, bool runsPrograms) const;
    /// Takes a connection over, and numbers it.
    void add(tk::Fd socket, const Credentials& credentials, Peer::Owner& owner);
    /// Gives a connection up to the caller; what it was registered as is forgotten.
    [[nodiscard]] std::unique_ptr<Peer> take(std::uint32_t number);
    /// Ends all connections.
    void clear();

    /// Registers a connection as `program`, which none is.
    void enrol(Peer& peer, std::uint32_t program);
    /// A program gives its number up.
    void resign(Peer& peer);

    /// The connection of this number; null where there is none, like the next two.
    /// Lifetime: until the connection ends.
    Peer* find(std::uint32_t number) const;
    /// The connection that is this program.
    Peer* findProgram(std::uint32_t program) const;
    /// The connection that a path leads to. A program still hears what was asked for under its number as a
    /// client, before it registered.
    Peer* findAt(const tk::Path& path) const;

    /// How many connections there are.
    std::size_t count() const { return peers.size(); }
    /// Sets the number that the next connection gets, if nobody has it.
    void setNextNumber(std::uint32_t number) { nextNumber = number; }

    /// Who pays for what this connection asks; for what is no connection root does, as for the handlers of the
    /// hub's process.
    tk::Budget& payer(std::uint32_t number);
    /// What is kept for a user, and of root for one connection.
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
