#pragma once

#include <linux/netfilter/nf_tables.h>

#include <cstdint>
#include <memory>

#include "firewall/batch.h"

struct nftnl_expr;
struct nftnl_rule;

namespace firewall {

/// A rule of the router's table under construction. Its expressions run in the order of the calls; they load
/// values into registers.
class RuleBuilder {
public:
    // The parts of a concatenation are in consecutive registers of 32 bits. The first one is also the start
    // of register 1.
    static constexpr std::uint32_t firstPart = NFT_REG_1;
    static constexpr std::uint32_t secondPart = NFT_REG32_01;
    static constexpr std::uint32_t thirdPart = NFT_REG32_02;
    static constexpr std::uint32_t fourthPart = NFT_REG32_03;
    static constexpr std::uint32_t fifthPart = NFT_REG32_04;

    /// Of the destination port in a TCP or UDP header.
    static constexpr std::uint32_t portOffset = 2;

    /// Starts a rule of a chain.
    explicit RuleBuilder(const char* chain, std::uint8_t family = nft::ip4);

    /// Loads bytes of the network header or of the transport header.
    void payload(nft_payload_bases base, std::uint32_t offset, std::uint32_t size, std::uint32_t into);
    /// Loads what the kernel knows about the packet.
    void meta(nft_meta_keys key, std::uint32_t into);
    /// Loads a field of the connection's first packet, as it was before translation.
    void original(nft_ct_keys key, std::uint32_t into);
    /// Loads a field of the connection's answers: their source is where the connection really leads.
    void reply(nft_ct_keys key, std::uint32_t into);
    /// Loads a property of the connection as a whole.
    void connection(nft_ct_keys key, std::uint32_t into);
    /// Loads the kind of the packet's destination: local, broadcast and so on.
    void destinationType(std::uint32_t into);

    /// Goes on only when the first register holds these bytes.
    void equals(const void* bytes, std::uint32_t size);
    /// Goes on only when the first register holds other bytes.
    void differs(const void* bytes, std::uint32_t size);
    /// Clears the bits of the first register that the mask does not have.
    void masked(std::uint32_t mask, std::uint32_t size);
    /// Goes on only for packets in the direction of the connection's first packet.
    void isOriginal();
    /// Goes on only for connections that bear the label, from 0 to 127.
    void hasLabel(std::uint32_t label);
    /// Goes on only for connections that do not bear the label.
    void lacksLabel(std::uint32_t label);
    /// Goes on only for connections whose destination was translated.
    void isTranslated();
    /// Goes on only for connections whose destination was not translated.
    void isNotTranslated();
    /// Goes on only for the first packet of a TCP connection.
    void isFirstOfTcp();
    /// Goes on only for packets of a protocol that go to a port.
    /// Byte order: host.
    void isTo(std::uint8_t protocol, std::uint16_t port);
    /// Goes on only when the set contains what the registers hold.
    void lookUp(const char* set);
    /// Goes on only when the set does not contain what the registers hold.
    void isNotIn(const char* set);
    /// Goes on only when the packet's source sends more than `rate` packets a second. The set remembers the
    /// sources.
    void exceedsRate(const char* set, std::uint32_t setNumber, std::uint32_t rate);
    /// Goes on only when the packet's source has more than `limit` connections.
    void exceedsConnections(const char* set, std::uint32_t setNumber, std::uint32_t limit);

    /// Counts the packet.
    void count();
    /// Goes on only for `rate` packets a second.
    void limit(std::uint32_t rate);
    /// Goes on only for the first `count` of the connections that there are at once.
    void limitConnections(std::uint32_t count);

    /// Looks up what the registers hold in the map, and loads the data. Goes on only when there is an entry.
    void translate(const char* map);
    /// Sends the connection on to the address and the port in the first two parts.
    void destinationNat();
    /// Adds a label to those of the connection. The first four parts are kept.
    void setLabel(std::uint32_t label);
    /// Overwrites bytes of a header, and leaves the checksums as they are.
    void overwrite(nft_payload_bases base, std::uint32_t offset, std::uint32_t size, std::uint32_t from);
    /// Shows the packet to the listeners of a group of the kernel's packet log.
    void log(std::uint16_t group);
    /// Gives the connection the router's address as its source.
    void masquerade();
    /// Answers the packet with a TCP reset.
    void rejectWithReset();
    /// Tells the sender that this is not allowed, unless the packet is broadcast or multicast.
    void rejectAsForbidden();
    /// Drops the packet without telling the sender.
    void drop();
    /// Lets the packet pass.
    void accept();
    /// Goes on in another chain.
    void goTo(const char* chain);
    /// Goes on in another chain, and comes back unless that chain has a verdict.
    void jumpTo(const char* chain);

    /// Appends the finished rule to a transaction.
    void appendTo(Batch& batch);

private:
    /// Lifetime: the rule owns the expression.
    nftnl_expr* add(const char* name);
    nftnl_expr* decide(std::uint32_t verdict);
    void loadConnection(nft_ct_keys key, std::uint8_t direction, std::uint32_t into);
    void compare(std::uint32_t operation, const void* bytes, std::uint32_t size);
    void compareTranslation(std::uint32_t operation);
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
