#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <string>
#include <tuple>

#include "router/guardconfig.h"
#include "router/interfaces.h"
#include "router/natkernel.h"
#include "router/netlinksocket.h"
#include "router/nftbatch.h"
#include "router/nftwatch.h"
#include "tk/timer.h"

namespace router {

/// The router's table in nf_tables. It is owned by the socket of this object: nobody else can change it, and
/// it goes with the process, however that ends. Where the kernel does not know owners (Linux before 5.12) the
/// table is a plain one, removed at start and end, and made anew as soon as somebody else changes it.
///
/// A change whose outcome the kernel does not tell is settled the same way: the table is made anew as it was.
class NftTable final : public NatKernel, public InterfaceWatcher, private NftWatch::Owner {
public:
    explicit NftTable(const GuardConfig& guard = {}) : guard(guard) {}
    NftTable(const NftTable&) = delete;
    NftTable& operator=(const NftTable&) = delete;
    ~NftTable() override;

    /// What is asked of the kernel: an owned table where it can, or a plain one in any case.
    enum class Kind : std::uint8_t { ownedIfPossible, plain };

    /// Makes the table, in place of one that was left behind.
    /// Errors: false, with the reason in `reason`, also when another process owns the table.
    /// Lifetime: with a plain table there is a loop from now on until the object is gone.
    [[nodiscard]] bool open(std::string& reason, Kind kind = Kind::ownedIfPossible);
    /// True when the kernel keeps others off the table.
    bool isOwned() const { return owned; }

    [[nodiscard]] bool commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                              std::string& reason) override;

    // What the kernel refuses of these is logged, and tried again each second.

    /// Limits the connections that a user's processes make, from now on for as long as the table exists.
    void guardUser(std::uint32_t user);
    /// Tells which interfaces, by index, a default route leads out of: the guard keeps its users off them,
    /// and no connection comes back through them as it does in the networks of the router.
    void setUplinks(const std::set<std::uint32_t>& indexes);

    void interfaceAdded(std::uint32_t index, std::uint32_t id) override;
    void interfaceGone(std::uint32_t index) override;

private:
    using Key = std::tuple<std::uint32_t, std::uint8_t, std::uint16_t>;
    static Key keyOf(const NatElement& element);

    using Fill = std::function<void(NftBatch&)>;

    [[nodiscard]] NetlinkResult make(bool owner);
    [[nodiscard]] NetlinkResult make(bool owner, std::span<const NatElement> content);
    [[nodiscard]] NetlinkResult fill(std::span<const NatElement> content);
    [[nodiscard]] NetlinkResult makeAnew();
    [[nodiscard]] NetlinkResult attempt(const Fill& fill);
    [[nodiscard]] NetlinkResult change(const Fill& fill);
    void insist(const Fill& fill, const std::string& trouble);
    void remember(std::span<const NatElement> removed, std::span<const NatElement> added);
    void tableChanged() override;
    void rest(std::uint32_t ticks);
    void mend();

    NetlinkSocket socket;
    bool owned = false;
    const GuardConfig guard;
    // What is in the table, and what it is made anew from.
    std::set<std::uint32_t> hairpins;
    std::set<std::uint32_t> guarded;  // users
    std::set<std::uint32_t> uplinks;
    std::map<Key, NatElement> elements;
    const char* doubt = nullptr;  // why the table may be different from that; null when it is not
    bool isResting = false;       // after the table was made anew, so that no quarrel takes all the time
    bool reported = false;        // that it cannot be made anew
    tk::Timer<NftTable, &NftTable::mend> restTimer{*this};
    NftWatch watch{*this};  // of a plain table
};

}  // namespace router
