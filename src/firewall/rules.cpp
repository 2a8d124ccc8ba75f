#include "firewall/rules.h"

#include <linux/if_arp.h>
#include <linux/ip.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/rtnetlink.h>
#include <netinet/in.h>
#include <stddef.h>

#include <functional>

#include "contract/ports.h"
#include "firewall/rulebuilder.h"

namespace firewall {

namespace {

constexpr std::uint8_t searchGroup[] = {239, 255, 255, 250};

constexpr std::uint32_t addressOffset = offsetof(iphdr, daddr);
constexpr std::uint32_t logsPerSecond = 1000;

// Two of the 128 labels that a connection can bear. Others usually number theirs from 0.
constexpr std::uint32_t translatedLabel = 116;  // the table's map translated it
constexpr std::uint32_t foreignLabel = 107;     // another table made it reach the router

constexpr auto portOffset = RuleBuilder::portOffset;
constexpr auto firstPart = RuleBuilder::firstPart;
constexpr auto secondPart = RuleBuilder::secondPart;
constexpr auto thirdPart = RuleBuilder::thirdPart;

void loadDestination(RuleBuilder& rule) {
    rule.payload(NFT_PAYLOAD_NETWORK_HEADER, addressOffset, sizeof(std::uint32_t), firstPart);
}

/// Loads the key to look up in the map.
void loadMapKey(RuleBuilder& rule) {
    loadDestination(rule);
    rule.meta(NFT_META_L4PROTO, secondPart);
    rule.payload(NFT_PAYLOAD_TRANSPORT_HEADER, portOffset, sizeof(std::uint16_t), thirdPart);
}

void writeDestination(RuleBuilder& rule) {
    rule.overwrite(NFT_PAYLOAD_NETWORK_HEADER, addressOffset, sizeof(std::uint32_t), firstPart);
    rule.overwrite(NFT_PAYLOAD_TRANSPORT_HEADER, portOffset, sizeof(std::uint16_t), secondPart);
}

/// Starts a rule for datagrams to a mapped port, of flows that began outside and are not translated.
/// `isKnown`: true for the datagrams after the first one.
RuleBuilder missedFlow(bool isKnown) {
    RuleBuilder rule(nft::missed);
    const std::uint8_t udp = IPPROTO_UDP;
    rule.meta(NFT_META_L4PROTO, firstPart);
    rule.equals(&udp, sizeof udp);
    const std::uint16_t loopback = ARPHRD_LOOPBACK;  // the router's own are left untranslated on purpose
    rule.meta(NFT_META_IIFTYPE, firstPart);
    rule.differs(&loopback, sizeof loopback);
    rule.isOriginal();
    const std::uint32_t status = isKnown ? IPS_CONFIRMED : 0;
    rule.connection(NFT_CT_STATUS, firstPart);
    rule.masked(IPS_CONFIRMED | IPS_DST_NAT, sizeof status);
    rule.equals(&status, sizeof status);
    return rule;
}

RuleBuilder guardedPacket(std::uint8_t family) {
    RuleBuilder rule(nft::output, family);
    rule.meta(NFT_META_SKUID, firstPart);
    rule.lookUp(nft::guarded);
    return rule;
}

/// The set for hairpin connections pairs each inside interface with itself.
void leavesInside(RuleBuilder& rule) {
    rule.meta(NFT_META_OIF, firstPart);
    rule.meta(NFT_META_OIF, secondPart);
    rule.lookUp(nft::hairpin);
}

void allowHostsInside(Batch& batch) {
    const std::uint32_t local = RTN_LOCAL;
    RuleBuilder rule(nft::daemon);
    rule.destinationType(firstPart);
    rule.differs(&local, sizeof local);
    leavesInside(rule);  // a process may choose the interface itself
    loadDestination(rule);
    rule.lookUp(nft::inside);
    rule.accept();
    rule.appendTo(batch);
}

void allowAdvertsInside(Batch& batch) {
    RuleBuilder rule(nft::daemon);
    loadDestination(rule);
    rule.equals(searchGroup, sizeof searchGroup);
    rule.isTo(IPPROTO_UDP, contract::ssdpPort);
    leavesInside(rule);
    rule.accept();
    rule.appendTo(batch);
}

void refuseAll(Batch& batch, const std::function<RuleBuilder()>& begin) {
    const std::uint8_t tcp = IPPROTO_TCP;
    RuleBuilder connections = begin();
    connections.meta(NFT_META_L4PROTO, firstPart);
    connections.equals(&tcp, sizeof tcp);
    connections.rejectWithReset();
    connections.appendTo(batch);
    RuleBuilder others = begin();
    others.rejectAsForbidden();
    others.appendTo(batch);
}

RuleBuilder newRequest() {
    RuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_TCP, contract::httpPort);
    rule.isFirstOfTcp();
    return rule;
}

}  // namespace

void addTranslation(Batch& batch) {
    RuleBuilder rule(nft::prerouting);
    const std::uint32_t local = RTN_LOCAL;
    rule.destinationType(firstPart);
    rule.equals(&local, sizeof local);
    loadMapKey(rule);
    rule.translate(nft::map);
    rule.setLabel(translatedLabel);
    rule.destinationNat();
    rule.appendTo(batch);
}

void addHairpinReturn(Batch& batch) {
    RuleBuilder rule(nft::postrouting);
    rule.isTranslated();
    rule.meta(NFT_META_IIF, firstPart);
    rule.meta(NFT_META_OIF, secondPart);
    rule.lookUp(nft::hairpin);
    rule.original(NFT_CT_DST_IP, firstPart);
    rule.meta(NFT_META_L4PROTO, secondPart);
    rule.original(NFT_CT_PROTO_DST, thirdPart);
    rule.translate(nft::map);  // only to see whether this table knows the connection
    rule.masquerade();
    rule.appendTo(batch);
}

void addFlowEnd(Batch& batch) {
    RuleBuilder other(nft::forward);
    other.isNotTranslated();
    other.accept();
    other.appendTo(batch);
    RuleBuilder live(nft::forward);
    live.original(NFT_CT_DST_IP, firstPart);
    // The connection's protocol, not the packet's: an ICMP error belongs to the flow that it reports.
    live.connection(NFT_CT_PROTOCOL, secondPart);
    live.original(NFT_CT_PROTO_DST, thirdPart);
    live.reply(NFT_CT_SRC_IP, RuleBuilder::fourthPart);
    live.reply(NFT_CT_PROTO_SRC, RuleBuilder::fifthPart);
    live.lookUp(nft::live);  // not isNotIn(): the kernel counts only what a look-up is to find
    live.accept();
    live.appendTo(batch);
    RuleBuilder ended(nft::forward);
    ended.hasLabel(translatedLabel);
    ended.goTo(nft::ended);
    ended.appendTo(batch);
}

void addStrayEnd(Batch& batch) {
    RuleBuilder rule(nft::missed);
    rule.hasLabel(translatedLabel);
    rule.goTo(nft::ended);
    rule.appendTo(batch);
}

/// While a client keeps sending, the kernel would keep the flow's entry and lead the flow to the former
/// target for ever. So the log shows which entry must go. It shows the packet rather than the entry: the
/// packet gets back its original destination for the log, and loses it again before it is answered.
void addFarewell(Batch& batch) {
    RuleBuilder log(nft::ended);
    log.isOriginal();
    log.limit(logsPerSecond);
    log.original(NFT_CT_DST_IP, firstPart);
    log.original(NFT_CT_PROTO_DST, secondPart);
    writeDestination(log);
    log.log(flowLogGroup);
    log.reply(NFT_CT_SRC_IP, firstPart);
    log.reply(NFT_CT_PROTO_SRC, secondPart);
    writeDestination(log);
    log.appendTo(batch);
    RuleBuilder reset(nft::ended);
    const std::uint8_t tcp = IPPROTO_TCP;
    reset.meta(NFT_META_L4PROTO, firstPart);
    reset.equals(&tcp, sizeof tcp);
    reset.rejectWithReset();
    reset.appendTo(batch);
    RuleBuilder rest(nft::ended);
    rest.drop();
    rest.appendTo(batch);
}

/// A flow that began before its port was mapped has an entry that leads to the router. The log shows that the
/// entry must go. A flow that begins while the port is mapped, and still comes here, was sent by another
/// table, which would send it here again. Its label says to leave it alone.
void addMissedFlows(Batch& batch) {
    RuleBuilder foreign = missedFlow(false);
    loadMapKey(foreign);
    foreign.lookUp(nft::map);
    foreign.setLabel(foreignLabel);
    foreign.appendTo(batch);
    RuleBuilder stale = missedFlow(true);
    stale.lacksLabel(foreignLabel);
    loadMapKey(stale);
    stale.lookUp(nft::map);
    stale.limit(logsPerSecond);
    stale.log(flowLogGroup);
    stale.appendTo(batch);
}

void addGuard(Batch& batch) {
    RuleBuilder rule = guardedPacket(nft::ip4);
    rule.jumpTo(nft::daemon);
    rule.appendTo(batch);
    allowHostsInside(batch);
    allowAdvertsInside(batch);
    refuseAll(batch, [] { return RuleBuilder(nft::daemon); });
}

void addGuardOfIp6(Batch& batch) {
    refuseAll(batch, [] { return guardedPacket(nft::ip6); });
}

/// Hosts that are not inside would get no answer anyway, but thousands of forged sources would cost the other
/// hosts theirs.
void addSearchOrigin(Batch& batch) {
    RuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_UDP, contract::ssdpPort);
    rule.meta(NFT_META_IIF, firstPart);
    rule.meta(NFT_META_IIF, secondPart);
    rule.lookUp(nft::hairpin);
    rule.payload(NFT_PAYLOAD_NETWORK_HEADER, offsetof(iphdr, saddr), sizeof(std::uint32_t), firstPart);
    rule.isNotIn(nft::inside);
    rule.drop();
    rule.appendTo(batch);
}

void addSearchLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t rate) {
    RuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_UDP, contract::ssdpPort);
    rule.exceedsRate(nft::searches, setNumber, rate);
    rule.drop();
    rule.appendTo(batch);
}

void addRequestLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t rate) {
    RuleBuilder rule = newRequest();
    rule.exceedsRate(nft::requests, setNumber, rate);
    rule.rejectWithReset();
    rule.appendTo(batch);
}

void addConnectionLimit(Batch& batch, std::uint32_t setNumber, std::uint32_t limit) {
    RuleBuilder rule = newRequest();
    rule.exceedsConnections(nft::connections, setNumber, limit);
    rule.rejectWithReset();
    rule.appendTo(batch);
}

}  // namespace firewall
