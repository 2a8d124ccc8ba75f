#include "firewall/guardrules.h"

#include <linux/ip.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <stddef.h>

#include <functional>

#include "firewall/names.h"
#include "firewall/rulebuilder.h"

namespace router {

namespace {

constexpr std::uint16_t searchPort = 1900;   // UDP
constexpr std::uint16_t gatewayPort = 2828;  // TCP

constexpr std::uint8_t searchGroup[] = {239, 255, 255, 250};

NftRuleBuilder guardedPacket(std::uint8_t family) {
    NftRuleBuilder rule(nft::output, family);
    rule.meta(NFT_META_SKUID, NftRuleBuilder::firstPart);
    rule.lookUp(nft::guarded);
    return rule;
}

void loadDestination(NftRuleBuilder& rule) {
    rule.payload(NFT_PAYLOAD_NETWORK_HEADER, offsetof(iphdr, daddr), sizeof(std::uint32_t),
                 NftRuleBuilder::firstPart);
}

/// The set for hairpin connections has each inside interface, paired with itself.
void leavesInside(NftRuleBuilder& rule) {
    rule.meta(NFT_META_OIF, NftRuleBuilder::firstPart);
    rule.meta(NFT_META_OIF, NftRuleBuilder::secondPart);
    rule.lookUp(nft::hairpin);
}

void allowHostsInside(NftBatch& batch) {
    const std::uint32_t local = RTN_LOCAL;
    NftRuleBuilder rule(nft::daemon);
    rule.destinationType(NftRuleBuilder::firstPart);
    rule.differs(&local, sizeof local);
    leavesInside(rule);  // a process may choose the interface itself
    loadDestination(rule);
    rule.lookUp(nft::inside);
    rule.accept();
    rule.appendTo(batch);
}

void allowAdvertsInside(NftBatch& batch) {
    NftRuleBuilder rule(nft::daemon);
    loadDestination(rule);
    rule.equals(searchGroup, sizeof searchGroup);
    rule.isTo(IPPROTO_UDP, searchPort);
    leavesInside(rule);
    rule.accept();
    rule.appendTo(batch);
}

void refuseAll(NftBatch& batch, const std::function<NftRuleBuilder()>& begin) {
    const std::uint8_t tcp = IPPROTO_TCP;
    NftRuleBuilder connections = begin();
    connections.meta(NFT_META_L4PROTO, NftRuleBuilder::firstPart);
    connections.equals(&tcp, sizeof tcp);
    connections.rejectWithReset();
    connections.appendTo(batch);
    NftRuleBuilder others = begin();
    others.rejectAsForbidden();
    others.appendTo(batch);
}

NftRuleBuilder newRequest() {
    NftRuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_TCP, gatewayPort);
    rule.isFirstOfTcp();
    return rule;
}

}  // namespace

void addGuard(NftBatch& batch) {
    NftRuleBuilder rule = guardedPacket(nft::ip4);
    rule.jumpTo(nft::daemon);
    rule.appendTo(batch);
    allowHostsInside(batch);
    allowAdvertsInside(batch);
    refuseAll(batch, [] { return NftRuleBuilder(nft::daemon); });
}

void addGuardOfIp6(NftBatch& batch) {
    refuseAll(batch, [] { return guardedPacket(nft::ip6); });
}

/// Whoever is not inside would get no answer, but forged sources by the thousand would cost the others
/// theirs.
void addSearchOrigin(NftBatch& batch) {
    NftRuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_UDP, searchPort);
    rule.meta(NFT_META_IIF, NftRuleBuilder::firstPart);
    rule.meta(NFT_META_IIF, NftRuleBuilder::secondPart);
    rule.lookUp(nft::hairpin);
    rule.payload(NFT_PAYLOAD_NETWORK_HEADER, offsetof(iphdr, saddr), sizeof(std::uint32_t),
                 NftRuleBuilder::firstPart);
    rule.isNotIn(nft::inside);
    rule.drop();
    rule.appendTo(batch);
}

void addSearchLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate) {
    NftRuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_UDP, searchPort);
    rule.exceedsRate(nft::searches, setNumber, rate);
    rule.drop();
    rule.appendTo(batch);
}

void addRequestLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t rate) {
    NftRuleBuilder rule = newRequest();
    rule.exceedsRate(nft::requests, setNumber, rate);
    rule.rejectWithReset();
    rule.appendTo(batch);
}

void addConnectionLimit(NftBatch& batch, std::uint32_t setNumber, std::uint32_t limit) {
    NftRuleBuilder rule = newRequest();
    rule.exceedsConnections(nft::connections, setNumber, limit);
    rule.rejectWithReset();
    rule.appendTo(batch);
}

}  // namespace router
