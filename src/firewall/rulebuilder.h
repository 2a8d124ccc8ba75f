#pragma once

#include <linux/netfilter/nf_tables.h>

#include <cstdint>
#include <memory>

#include "firewall/batch.h"

struct nftnl_expr;
struct nftnl_rule;

namespace firewall {

/// A rule of the router's table under construction. Its expressions run from left to right; the values that
/// they load stand in registers.
class RuleBuilder {
public:
    // Parts of a concatenation stand in consecutive registers of 32 bits; the first one shares its place with
    // register 1.
    static constexpr std::uint32_t firstPart = NFT_REG_1;
    static constexpr std::uint32_t secondPart = NFT_REG32_01;
    static constexpr std::uint32_t thirdPart = NFT_REG32_02;
    static constexpr std::uint32_t fourthPart = NFT_REG32_03;
    static constexpr std::uint32_t fifthPart = NFT_REG32_04;

    /// Begins a rule of a chain.
    explicit RuleBuilder(const char* chain, std::uint8_t family = nft::ip4);

    /// Loads bytes of a header: of the network's, or of the transport's above it.
    void payload(nft_payload_bases base, std::uint32_t offset, std::uint32_t size, std::uint32_t into);
    /// Loads what the kernel knows about the packet.
    void meta(nft_meta_keys key, std::uint32_t into);
    /// Loads a part of the connection's first packet, as it was before translation.
    void original(nft_ct_keys key, std::uint32_t into);
    /// Loads a part of what answers the connection: its source is where the connection really leads.
    void reply(nft_ct_keys key, std::uint32_t into);
    /// Loads what the connection is as a whole.
    void connection(nft_ct_keys key, std::uint32_t into);
    /// Loads what kind of address the packet goes to: local, broadcast and so on.
    void destinationType(std::uint32_t into);

    /// Goes on only when the first register holds these bytes, or others; with a mask, when they are left of
    /// it.
    void equals(const void* bytes, std::uint32_t size);
    void differs(const void* bytes, std::uint32_t size);
    void masked(std::uint32_t mask, std::uint32_t size);
    /// Goes on only for packets in the direction of the connection's first one.
    void isOriginal();
    /// Goes on only for connections that bear the label, or do not. Labels: 0 to 127.
    void hasLabel(std::uint32_t label);
    void lacksLabel(std::uint32_t label);
    /// Goes on only for connections whose destination was translated.
    void isTranslated();
    /// Goes on only for the first packet of a TCP connection.
    void isFirstOfTcp();
    /// Goes on only for packets of a protocol to a port.
    /// Byte order: host.
    void isTo(std::uint8_t protocol, std::uint16_t port);
    /// Goes on only when the set has what the registers hold.
    void lookUp(const char* set);
    /// Goes on only when the set does not have it.
    void isNotIn(const char* set);
    /// Goes on only when the packet's source sent more than `rate` packets a second. The set remembers the
    /// sources.
    void exceedsRate(const char* set, std::uint32_t setNumber, std::uint32_t rate);
    /// Goes on only when the packet's source has more than `limit` connections.
    void exceedsConnections(const char* set, std::uint32_t setNumber, std::uint32_t limit);

    /// Goes on only for so many packets a second.
    void limit(std::uint32_t rate);

    /// Replaces what the registers hold by its data in the map; goes on only when it is there.
    void translate(const char* map);
    /// Sends the connection on to the address and the port in the first two parts.
    void destinationNat();
    /// Adds a label to those that the connection bears. The parts up to the fourth stay as they are.
    void setLabel(std::uint32_t label);
    /// Writes bytes of a header, and leaves the checksums as they are.
    void overwrite(nft_payload_bases base, std::uint32_t offset, std::uint32_t size, std::uint32_t from);
    /// Shows the packet to whoever listens to the group of the kernel's packet log.
    void log(std::uint16_t group);
    /// Gives the connection the router's address as its source.
    void masquerade();
    /// Ends a TCP connection for its sender.
    void rejectWithReset();
    /// Tells the sender, where it is no broadcast or multicast, that this is not allowed.
    void rejectAsForbidden();
    // Verdicts without a word to the sender.
    void drop();
    void accept();
    /// Goes on in another chain.
    void goTo(const char* chain);
    /// Goes on in another chain, and comes back when that has no verdict.
    void jumpTo(const char* chain);

    /// Appends the finished rule to a transaction.
    void appendTo(Batch& batch);

private:
    /// The expression belongs to the rule.
    nftnl_expr* add(const char* name);
    nftnl_expr* decide(std::uint32_t verdict);
    void loadConnection(nft_ct_keys key, std::uint8_t direction, std::uint32_t into);
    void compare(std::uint32_t operation, const void* bytes, std::uint32_t size);
    void compareLabel(std::uint32_t operation, std::uint32_t label);
    void addToSet(const char* set, std::uint32_t setNumber, std::uint64_t timeoutMilliseconds,
                  nftnl_expr* condition);

    struct Free {
        void operator()(nftnl_rule* rule) const;
    };

    const std::uint8_t family;
    std::unique_ptr<nftnl_rule, Free> rule;
};

}  // namespace firewall
