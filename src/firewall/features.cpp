#include "firewall/features.h"

#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include "firewall/batch.h"
#include "firewall/objects.h"
#include "firewall/rules.h"

namespace firewall {

namespace {

constexpr auto first = RuleBuilder::firstPart;
constexpr std::uint16_t anyGroup = 1;
constexpr std::uint32_t anyRate = 1;
constexpr std::uint32_t anyLabel = 1;
constexpr std::uint32_t anyCount = 1;

constexpr Feature features[] = {
    {"tables with an owner (Linux 5.12)", ownerFlag, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.drop(); }},
    {"chains of type nat, and its expression nat (Linux 4.18)", 0, "nat", NF_INET_PRE_ROUTING,
     [](RuleBuilder& rule) {
         rule.payload(NFT_PAYLOAD_NETWORK_HEADER, 0, 2 * sizeof first, first);  // of any content
         rule.destinationNat();
     }},
    {"the expression masq (Linux 3.18)", 0, "nat", NF_INET_POST_ROUTING,
     [](RuleBuilder& rule) { rule.masquerade(); }},
    {"the expression fib (Linux 4.10)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.destinationType(first); }},
    {"the expression ct (Linux 4.17)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.reply(NFT_CT_SRC_IP, first); }},
    {"labels of connections (Linux 4.7, CONFIG_NF_CONNTRACK_LABELS)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.setLabel(anyLabel); }},
    {"the expression reject (Linux 3.14)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.rejectWithReset(); }},
    {"the expression counter (Linux 3.13)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.count(); }},
    {"the expression limit (Linux 3.13)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.limit(anyRate); }},
    {"the expression log, and nfnetlink_log (Linux 3.13)", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.log(anyGroup); }},
    {"tables for IPv6 (Linux 3.13, CONFIG_NF_TABLES_IPV6), though it has IPv6", 0, "filter", NF_INET_FORWARD,
     [](RuleBuilder& rule) { rule.rejectAsForbidden(); }, nft::ip6, &Extras::ip6},
    {"the expression connlimit (Linux 4.18, CONFIG_NFT_CONNLIMIT), for [guard] connections", 0, "filter",
     NF_INET_FORWARD, [](RuleBuilder& rule) { rule.limitConnections(anyCount); }, nft::ip4,
     &Extras::limitsConnections},
};

}  // namespace

std::span<const Feature> neededFeatures() {
    return features;
}

std::optional<std::string> missingFeature(netlink::Socket& socket, std::span<const Feature> wanted,
                                          const Extras& extras) {
    for (const Feature& feature : wanted) {
        if (feature.onlyFor && !(extras.*feature.onlyFor)) continue;
        Batch batch(socket);
        removeTable(batch, false, feature.family);
        addTable(batch, feature.tableFlags, feature.family);
        addChain(batch, nft::forward, feature.chainType, feature.hook, 0, feature.family);
        RuleBuilder rule(nft::forward, feature.family);
        feature.fill(rule);
        rule.appendTo(batch);
        removeTable(batch, feature.tableFlags == ownerFlag, feature.family);
        if (!batch.commit().isOk()) return feature.name;
    }
    return std::nullopt;
}

}  // namespace firewall
