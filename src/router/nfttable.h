#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <tuple>

#include "router/guardconfig.h"
#include "router/interfaces.h"
#include "router/natkernel.h"
#include "router/netlinksocket.h"

namespace router {

/// The router's table in nf_tables. It is owned by the socket of this object: nobody else can change it, and
/// it goes with the process, however that ends. Where the kernel does not know owners (Linux before 5.12) the
/// table is a plain one, removed at start and end, and made anew when somebody flushed it.
class NftTable final : public NatKernel, public InterfaceWatcher {
public:
    explicit NftTable(const GuardConfig& guard = {}) : guard(guard) {}
    NftTable(const NftTable&) = delete;
    NftTable& operator=(const NftTable&) = delete;
    ~NftTable() override;

    /// What is asked of the kernel: an owned table where it can, or a plain one in any case.
    enum class Kind : std::uint8_t { ownedIfPossible, plain };

    /// Makes the table, in place of one that was left behind.
    /// Errors: false, with the reason in `reason`, also when another process owns the table.
    [[nodiscard]] bool open(std::string& reason, Kind kind = Kind::ownedIfPossible);
    /// True when the kernel keeps others off the table.
    bool isOwned() const { return owned; }

    [[nodiscard]] bool commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                              std::string& reason) override;

    /// Limits the connections that a user's processes make, from now on for as long as the table exists.
    void guardUser(std::uint32_t user);
    /// Tells which interfaces, by index, a default route leads out of.
    void setUplinks(const std::set<std::uint32_t>& indexes);

    void interfaceAdded(std::uint32_t index, std::uint32_t id) override;
    void interfaceGone(std::uint32_t index) override;

private:
    using Key = std::tuple<std::uint32_t, std::uint8_t, std::uint16_t>;
    static Key keyOf(const NatElement& element);

    [[nodiscard]] NetlinkResult make(bool owner);
    [[nodiscard]] NetlinkResult change(std::span<const NatElement> removed,
                                       std::span<const NatElement> added);
    void remember(std::span<const NatElement> removed, std::span<const NatElement> added);

    NetlinkSocket socket;
    bool owned = false;
    const GuardConfig guard;
    std::set<std::uint32_t> hairpins;
    std::set<std::uint32_t> guarded;  // users
    std::set<std::uint32_t> uplinks;
    std::map<Key, NatElement> copies;  // for making a plain table anew; empty with an owned one
};

}  // namespace router
