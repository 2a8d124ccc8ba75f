#include "router/nftguardrules.h"

#include <linux/rtnetlink.h>
#include <netinet/in.h>

#include "router/nftnames.h"
#include "router/nftrulebuilder.h"

namespace router {

namespace {

constexpr std::uint16_t searchPort = 1900;   // UDP
constexpr std::uint16_t gatewayPort = 2828;  // TCP

/// Begins a rule for the connections that guarded users make. The flags tell them, not the state that is
/// tracked, for a flow that was forgotten would look new.
NftRuleBuilder guardedConnection() {
    NftRuleBuilder rule(nft::output);
    rule.isFirstOfTcp();
    rule.meta(NFT_META_SKUID, NftRuleBuilder::firstPart);
    rule.lookUp(nft::guarded);
    return rule;
}

NftRuleBuilder newRequest() {
    NftRuleBuilder rule(nft::input);
    rule.isTo(IPPROTO_TCP, gatewayPort);
    rule.isFirstOfTcp();
    return rule;
}

}  // namespace

void addConnectionGuard(NftBatch& batch) {
    const std::uint32_t local = RTN_LOCAL;
    NftRuleBuilder inside = guardedConnection();
    inside.destinationType(NftRuleBuilder::firstPart);
    inside.equals(&local, sizeof local);
    inside.rejectWithReset();
    inside.appendTo(batch);
    NftRuleBuilder outside = guardedConnection();
    outside.meta(NFT_META_OIF, NftRuleBuilder::firstPart);
    outside.lookUp(nft::uplinks);
    outside.rejectWithReset();
    outside.appendTo(batch);
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
