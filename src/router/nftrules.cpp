#include "router/nftrules.h"

#include <linux/ip.h>
#include <stddef.h>

#include "router/nftnames.h"
#include "router/nftrulebuilder.h"

namespace router {

namespace {

constexpr std::uint32_t portOffset = 2;  // of the destination port in a TCP or UDP header

}  // namespace

void addTranslation(NftBatch& batch) {
    NftRuleBuilder rule(nft::prerouting);
    rule.payload(NFT_PAYLOAD_NETWORK_HEADER, offsetof(iphdr, daddr), sizeof(std::uint32_t),
                 NftRuleBuilder::firstPart);
    rule.meta(NFT_META_L4PROTO, NftRuleBuilder::secondPart);
    rule.payload(NFT_PAYLOAD_TRANSPORT_HEADER, portOffset, sizeof(std::uint16_t), NftRuleBuilder::thirdPart);
    rule.translate(nft::map);
    rule.destinationNat();
    rule.appendTo(batch);
}

void addHairpinReturn(NftBatch& batch) {
    NftRuleBuilder rule(nft::postrouting);
    rule.isTranslated();
    rule.meta(NFT_META_IIF, NftRuleBuilder::firstPart);
    rule.meta(NFT_META_OIF, NftRuleBuilder::secondPart);
    rule.lookUp(nft::hairpin);
    rule.meta(NFT_META_OIF, NftRuleBuilder::firstPart);
    rule.isNotIn(nft::uplinks);
    rule.original(NFT_CT_DST_IP, NftRuleBuilder::firstPart);
    rule.meta(NFT_META_L4PROTO, NftRuleBuilder::secondPart);
    rule.original(NFT_CT_PROTO_DST, NftRuleBuilder::thirdPart);
    rule.translate(nft::map);  // only to see that the connection is one of this table's
    rule.masquerade();
    rule.appendTo(batch);
}

}  // namespace router
