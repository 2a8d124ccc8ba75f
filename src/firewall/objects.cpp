#include "firewall/objects.h"

#include <libnftnl/chain.h>
#include <libnftnl/common.h>
#include <libnftnl/rule.h>
#include <libnftnl/table.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>

#include <memory>

#include "firewall/memory.h"
#include "firewall/rules.h"
#include "firewall/sets.h"

namespace firewall {

namespace {

constexpr std::int32_t priorityAfterDstnat = -90;
constexpr std::int32_t priorityBeforeFilter = -10;
constexpr std::int32_t priorityFilter = 0;
constexpr std::int32_t prioritySrcnat = 100;

using TableObject = std::unique_ptr<nftnl_table, decltype(&nftnl_table_free)>;
using ChainObject = std::unique_ptr<nftnl_chain, decltype(&nftnl_chain_free)>;

TableObject makeTable(std::uint32_t flags, std::uint8_t family) {
    TableObject table(made(nftnl_table_alloc()), &nftnl_table_free);
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, family);
    done(nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, nft::table));
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, flags);
    return table;
}

ChainObject makeChain(const char* name, std::uint8_t family = nft::ip4) {
    ChainObject chain(made(nftnl_chain_alloc()), &nftnl_chain_free);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, family);
    done(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, nft::table));
    done(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name));
    return chain;
}

void addChain(Batch& batch, const ChainObject& chain, std::uint8_t family = nft::ip4) {
    batch.add(
        NFT_MSG_NEWCHAIN, NLM_F_CREATE,
        [&chain](nlmsghdr& message) { nftnl_chain_nlmsg_build_payload(&message, chain.get()); }, family);
}

void flushChain(Batch& batch, const char* name) {
    const std::unique_ptr<nftnl_rule, decltype(&nftnl_rule_free)> all(made(nftnl_rule_alloc()),
                                                                      &nftnl_rule_free);
    nftnl_rule_set_u32(all.get(), NFTNL_RULE_FAMILY, nft::ip4);
    done(nftnl_rule_set_str(all.get(), NFTNL_RULE_TABLE, nft::table));
    done(nftnl_rule_set_str(all.get(), NFTNL_RULE_CHAIN, name));
    batch.add(NFT_MSG_DELRULE, 0,
              [&all](nlmsghdr& message) { nftnl_rule_nlmsg_build_payload(&message, all.get()); });
}

void removeChain(Batch& batch, const char* name) {
    const ChainObject chain = makeChain(name);
    batch.add(NFT_MSG_DELCHAIN, 0,
              [&chain](nlmsghdr& message) { nftnl_chain_nlmsg_build_payload(&message, chain.get()); });
}

void createDaemonChains(Batch& batch) {
    addUserSet(batch, nft::ip4);
    addChain(batch, nft::output, "filter", NF_INET_LOCAL_OUT, priorityFilter);
    addChain(batch, makeChain(nft::daemon));
    addGuard(batch);
}

void removeDaemonChains(Batch& batch) {
    for (const char* chain : {nft::output, nft::daemon}) flushChain(batch, chain);
    for (const char* chain : {nft::output, nft::daemon}) removeChain(batch, chain);
    removeSet(batch, nft::guarded);
}

/// True when the guard has rules in the input chain.
bool hasInput(const GuardConfig& guard) {
    return guard != noGuard;
}

/// A limit on what each source sends, and the set that remembers the sources.
struct SourceLimit {
    std::uint32_t GuardConfig::*value;  // 0: there is neither
    const char* set;
    std::uint32_t setNumber;
    std::uint32_t setFlags;
    void (*addRule)(Batch& batch, std::uint32_t setNumber, std::uint32_t value);
};

constexpr SourceLimit sourceLimits[] = {
    {&GuardConfig::searchesPerSecond, nft::searches, setnumber::searches, NFT_SET_TIMEOUT, &addSearchLimit},
    {&GuardConfig::requestsPerSecond, nft::requests, setnumber::requests, NFT_SET_TIMEOUT, &addRequestLimit},
    {&GuardConfig::connections, nft::connections, setnumber::connections, 0, &addConnectionLimit},
};

/// Removes the sets whose limit changes: they remember the sources with it.
void removeSourceSets(Batch& batch, const GuardConfig& from, const GuardConfig& to) {
    for (const SourceLimit& limit : sourceLimits)
        if (from.*limit.value != 0 && from.*limit.value != to.*limit.value) removeSet(batch, limit.set);
}

void addSourceSets(Batch& batch, const GuardConfig& from, const GuardConfig& to) {
    for (const SourceLimit& limit : sourceLimits)
        if (to.*limit.value != 0 && from.*limit.value != to.*limit.value)
            addSourceSet(batch, limit.set, limit.setNumber, limit.setFlags);
}

void addInputRules(Batch& batch, const GuardConfig& guard) {
    if (guard.limitsConnections) addSearchOrigin(batch);
    for (const SourceLimit& limit : sourceLimits)
        if (guard.*limit.value != 0) limit.addRule(batch, limit.setNumber, guard.*limit.value);
}

}  // namespace

void addTable(Batch& batch, std::uint32_t flags, std::uint8_t family) {
    const TableObject table = makeTable(flags, family);
    batch.add(
        NFT_MSG_NEWTABLE, NLM_F_CREATE,
        [&table](nlmsghdr& message) { nftnl_table_nlmsg_build_payload(&message, table.get()); }, family);
}

void addChain(Batch& batch, const char* name, const char* type, std::uint32_t hook, std::int32_t priority,
              std::uint8_t family) {
    const ChainObject chain = makeChain(name, family);
    done(nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, type));
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, priority);
    addChain(batch, chain, family);
}

void removeTable(Batch& batch, bool isOurs, std::uint8_t family) {
    // The table may be absent, and then removing it would fail. So it is added first.
    addTable(batch, isOurs ? ownerFlag : 0, family);
    const TableObject table = makeTable(0, family);
    batch.add(
        NFT_MSG_DELTABLE, 0,
        [&table](nlmsghdr& message) { nftnl_table_nlmsg_build_payload(&message, table.get()); }, family);
}

void createTable(Batch& batch) {
    addTable(batch, ownerFlag);
    addMap(batch);
    addLiveSet(batch);
    addHairpinSet(batch);
    addInsideSet(batch);
    addChain(batch, nft::prerouting, "nat", NF_INET_PRE_ROUTING, priorityAfterDstnat);
    addChain(batch, nft::postrouting, "nat", NF_INET_POST_ROUTING, prioritySrcnat);
    addChain(batch, nft::forward, "filter", NF_INET_FORWARD, priorityBeforeFilter);
    addChain(batch, makeChain(nft::ended));
    addChain(batch, nft::missed, "filter", NF_INET_LOCAL_IN, priorityBeforeFilter);
    addTranslation(batch);
    addHairpinReturn(batch);
    addFarewell(batch);
    addMissedFlows(batch);
}

void changeGuard(Batch& batch, const GuardConfig& from, const GuardConfig& to) {
    if (from.limitsConnections && !to.limitsConnections) removeDaemonChains(batch);
    if (!from.limitsConnections && to.limitsConnections) createDaemonChains(batch);
    if (hasInput(from)) flushChain(batch, nft::input);  // lets go of the sets
    removeSourceSets(batch, from, to);
    if (hasInput(from) && !hasInput(to)) removeChain(batch, nft::input);
    if (!hasInput(from) && hasInput(to))
        addChain(batch, nft::input, "filter", NF_INET_LOCAL_IN, priorityFilter);
    addSourceSets(batch, from, to);
    addInputRules(batch, to);
}

void resetMissedFlows(Batch& batch) {
    flushChain(batch, nft::missed);
    addMissedFlows(batch);
}

void createGuardOfIp6(Batch& batch) {
    addTable(batch, ownerFlag, nft::ip6);
    addUserSet(batch, nft::ip6);
    addChain(batch, nft::output, "filter", NF_INET_LOCAL_OUT, priorityFilter, nft::ip6);
    addGuardOfIp6(batch);
}

}  // namespace firewall
