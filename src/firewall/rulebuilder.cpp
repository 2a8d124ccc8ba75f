#include "firewall/rulebuilder.h"

#include <arpa/inet.h>
#include <libnftnl/expr.h>
#include <libnftnl/rule.h>
#include <linux/icmp.h>
#include <linux/icmpv6.h>
#include <linux/ip.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_conntrack_common.h>
#include <linux/netfilter/nf_conntrack_tuple_common.h>
#include <netinet/in.h>
#include <stddef.h>

#include <array>

#include "firewall/memory.h"
#include "firewall/rules.h"

namespace firewall {

namespace {

constexpr std::uint32_t flagsOffset = 13;       // of the flags in a TCP header
constexpr std::uint8_t connectionFlags = 0x17;  // FIN, SYN, RST, ACK
constexpr std::uint8_t synFlag = 0x02;
constexpr std::uint64_t rateMemory = 60000;  // milliseconds for which a source is remembered
constexpr std::uint32_t overLimit = 1;       // of a limit or a count: match above it

/// The labels of a connection as the kernel keeps them: bits of words in the host's byte order.
using Labels = std::array<unsigned long, 16 / sizeof(unsigned long)>;

Labels onlyLabel(std::uint32_t label) {
    constexpr std::size_t bitsPerWord = 8 * sizeof(unsigned long);
    Labels labels{};
    labels[label / bitsPerWord] = 1UL << label % bitsPerWord;
    return labels;
}

}  // namespace

void RuleBuilder::Free::operator()(nftnl_rule* rule) const {
    nftnl_rule_free(rule);
}

RuleBuilder::RuleBuilder(const char* chain, std::uint8_t family)
    : family(family), rule(made(nftnl_rule_alloc())) {
    nftnl_rule_set_u32(rule.get(), NFTNL_RULE_FAMILY, family);
    done(nftnl_rule_set_str(rule.get(), NFTNL_RULE_TABLE, nft::table));
    done(nftnl_rule_set_str(rule.get(), NFTNL_RULE_CHAIN, chain));
}

nftnl_expr* RuleBuilder::add(const char* name) {
    nftnl_expr* expression = made(nftnl_expr_alloc(name));
    nftnl_rule_add_expr(rule.get(), expression);
    return expression;
}

void RuleBuilder::payload(nft_payload_bases base, std::uint32_t offset, std::uint32_t size,
                          std::uint32_t into) {
    nftnl_expr* load = add("payload");
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_LEN, size);
    nftnl_expr_set_u32(load, NFTNL_EXPR_PAYLOAD_DREG, into);
}

void RuleBuilder::meta(nft_meta_keys key, std::uint32_t into) {
    nftnl_expr* load = add("meta");
    nftnl_expr_set_u32(load, NFTNL_EXPR_META_KEY, key);
    nftnl_expr_set_u32(load, NFTNL_EXPR_META_DREG, into);
}

void RuleBuilder::loadConnection(nft_ct_keys key, std::uint8_t direction, std::uint32_t into) {
    nftnl_expr* load = add("ct");
    nftnl_expr_set_u32(load, NFTNL_EXPR_CT_KEY, key);
    nftnl_expr_set_u8(load, NFTNL_EXPR_CT_DIR, direction);
    nftnl_expr_set_u32(load, NFTNL_EXPR_CT_DREG, into);
}

void RuleBuilder::original(nft_ct_keys key, std::uint32_t into) {
    loadConnection(key, IP_CT_DIR_ORIGINAL, into);
}

void RuleBuilder::reply(nft_ct_keys key, std::uint32_t into) {
    loadConnection(key, IP_CT_DIR_REPLY, into);
}

void RuleBuilder::connection(nft_ct_keys key, std::uint32_t into) {
    nftnl_expr* load = add("ct");
    nftnl_expr_set_u32(load, NFTNL_EXPR_CT_KEY, key);
    nftnl_expr_set_u32(load, NFTNL_EXPR_CT_DREG, into);
}

void RuleBuilder::destinationType(std::uint32_t into) {
    nftnl_expr* load = add("fib");
    nftnl_expr_set_u32(load, NFTNL_EXPR_FIB_RESULT, NFT_FIB_RESULT_ADDRTYPE);
    nftnl_expr_set_u32(load, NFTNL_EXPR_FIB_FLAGS, NFTA_FIB_F_DADDR);
    nftnl_expr_set_u32(load, NFTNL_EXPR_FIB_DREG, into);
}

void RuleBuilder::compare(std::uint32_t operation, const void* bytes, std::uint32_t size) {
    nftnl_expr* compare = add("cmp");
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_SREG, firstPart);
    nftnl_expr_set_u32(compare, NFTNL_EXPR_CMP_OP, operation);
    done(nftnl_expr_set(compare, NFTNL_EXPR_CMP_DATA, bytes, size));
}

void RuleBuilder::equals(const void* bytes, std::uint32_t size) {
    compare(NFT_CMP_EQ, bytes, size);
}

void RuleBuilder::differs(const void* bytes, std::uint32_t size) {
    compare(NFT_CMP_NEQ, bytes, size);
}

void RuleBuilder::isOriginal() {
    const std::uint8_t original = IP_CT_DIR_ORIGINAL;
    connection(NFT_CT_DIRECTION, firstPart);
    equals(&original, sizeof original);
}

void RuleBuilder::compareLabel(std::uint32_t operation, std::uint32_t label) {
    const Labels wanted = onlyLabel(label);
    const Labels none{};
    connection(NFT_CT_LABELS, firstPart);
    nftnl_expr* bits = add("bitwise");
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_SREG, firstPart);
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_DREG, firstPart);
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_LEN, sizeof wanted);
    done(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_MASK, wanted.data(), sizeof wanted));
    done(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_XOR, none.data(), sizeof none));
    compare(operation, none.data(), sizeof none);
}

void RuleBuilder::hasLabel(std::uint32_t label) {
    compareLabel(NFT_CMP_NEQ, label);
}

void RuleBuilder::lacksLabel(std::uint32_t label) {
    compareLabel(NFT_CMP_EQ, label);
}

void RuleBuilder::masked(std::uint32_t mask, std::uint32_t size) {
    const std::uint32_t none = 0;
    nftnl_expr* bits = add("bitwise");
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_SREG, firstPart);
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_DREG, firstPart);
    nftnl_expr_set_u32(bits, NFTNL_EXPR_BITWISE_LEN, size);
    done(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_MASK, &mask, size));
    done(nftnl_expr_set(bits, NFTNL_EXPR_BITWISE_XOR, &none, size));
}

void RuleBuilder::compareTranslation(std::uint32_t operation) {
    const std::uint32_t none = 0;
    connection(NFT_CT_STATUS, firstPart);
    masked(IPS_DST_NAT, sizeof none);
    compare(operation, &none, sizeof none);
}

void RuleBuilder::isTranslated() {
    compareTranslation(NFT_CMP_NEQ);
}

void RuleBuilder::isNotTranslated() {
    compareTranslation(NFT_CMP_EQ);
}

void RuleBuilder::isFirstOfTcp() {
    const std::uint8_t tcp = IPPROTO_TCP;
    meta(NFT_META_L4PROTO, firstPart);
    equals(&tcp, sizeof tcp);
    payload(NFT_PAYLOAD_TRANSPORT_HEADER, flagsOffset, sizeof synFlag, firstPart);
    masked(connectionFlags, sizeof connectionFlags);
    equals(&synFlag, sizeof synFlag);
}

void RuleBuilder::isTo(std::uint8_t protocol, std::uint16_t port) {
    const std::uint16_t networkPort = htons(port);
    meta(NFT_META_L4PROTO, firstPart);
    equals(&protocol, sizeof protocol);
    payload(NFT_PAYLOAD_TRANSPORT_HEADER, portOffset, sizeof networkPort, firstPart);
    equals(&networkPort, sizeof networkPort);
}

void RuleBuilder::lookUp(const char* set) {
    nftnl_expr* lookup = add("lookup");
    done(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, set));
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, firstPart);
}

void RuleBuilder::isNotIn(const char* set) {
    nftnl_expr* lookup = add("lookup");
    done(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, set));
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, firstPart);
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_FLAGS, NFT_LOOKUP_F_INV);
}

void RuleBuilder::addToSet(const char* set, std::uint32_t setNumber, std::uint64_t timeoutMilliseconds,
                           nftnl_expr* condition) {
    payload(NFT_PAYLOAD_NETWORK_HEADER, offsetof(iphdr, saddr), sizeof(std::uint32_t), firstPart);
    nftnl_expr* change = add("dynset");
    nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_OP,
                       timeoutMilliseconds != 0 ? NFT_DYNSET_OP_UPDATE : NFT_DYNSET_OP_ADD);
    done(nftnl_expr_set_str(change, NFTNL_EXPR_DYNSET_SET_NAME, set));
    nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SET_ID, setNumber);
    nftnl_expr_set_u32(change, NFTNL_EXPR_DYNSET_SREG_KEY, firstPart);
    if (timeoutMilliseconds != 0) nftnl_expr_set_u64(change, NFTNL_EXPR_DYNSET_TIMEOUT, timeoutMilliseconds);
    // The condition belongs to the expression from now on.
    done(nftnl_expr_set(change, NFTNL_EXPR_DYNSET_EXPR, condition, 0));
}

void RuleBuilder::count() {
    add("counter");
}

void RuleBuilder::limit(std::uint32_t rate) {
    nftnl_expr* limit = add("limit");
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, rate);
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, 1);  // second
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, rate);
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
}

void RuleBuilder::limitConnections(std::uint32_t count) {
    nftnl_expr_set_u32(add("connlimit"), NFTNL_EXPR_CONNLIMIT_COUNT, count);
}

void RuleBuilder::exceedsRate(const char* set, std::uint32_t setNumber, std::uint32_t rate) {
    nftnl_expr* limit = made(nftnl_expr_alloc("limit"));
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_RATE, rate);
    nftnl_expr_set_u64(limit, NFTNL_EXPR_LIMIT_UNIT, 1);  // second
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_BURST, rate);
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_TYPE, NFT_LIMIT_PKTS);
    nftnl_expr_set_u32(limit, NFTNL_EXPR_LIMIT_FLAGS, overLimit);
    addToSet(set, setNumber, rateMemory, limit);
}

void RuleBuilder::exceedsConnections(const char* set, std::uint32_t setNumber, std::uint32_t limit) {
    nftnl_expr* count = made(nftnl_expr_alloc("connlimit"));
    nftnl_expr_set_u32(count, NFTNL_EXPR_CONNLIMIT_COUNT, limit);
    nftnl_expr_set_u32(count, NFTNL_EXPR_CONNLIMIT_FLAGS, overLimit);
    addToSet(set, setNumber, 0, count);
}

void RuleBuilder::translate(const char* map) {
    nftnl_expr* lookup = add("lookup");
    done(nftnl_expr_set_str(lookup, NFTNL_EXPR_LOOKUP_SET, map));
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_SREG, firstPart);
    nftnl_expr_set_u32(lookup, NFTNL_EXPR_LOOKUP_DREG, firstPart);
}

void RuleBuilder::destinationNat() {
    nftnl_expr* nat = add("nat");
    nftnl_expr_set_u32(nat, NFTNL_EXPR_NAT_TYPE, NFT_NAT_DNAT);
    nftnl_expr_set_u32(nat, NFTNL_EXPR_NAT_FAMILY, nft::ip4);
    nftnl_expr_set_u32(nat, NFTNL_EXPR_NAT_REG_ADDR_MIN, firstPart);
    nftnl_expr_set_u32(nat, NFTNL_EXPR_NAT_REG_PROTO_MIN, secondPart);
}

void RuleBuilder::setLabel(std::uint32_t label) {
    const Labels wanted = onlyLabel(label);
    nftnl_expr* load = add("immediate");
    nftnl_expr_set_u32(load, NFTNL_EXPR_IMM_DREG, NFT_REG_2);  // after the four parts in register 1
    done(nftnl_expr_set(load, NFTNL_EXPR_IMM_DATA, wanted.data(), sizeof wanted));
    nftnl_expr* set = add("ct");
    nftnl_expr_set_u32(set, NFTNL_EXPR_CT_KEY, NFT_CT_LABELS);
    nftnl_expr_set_u32(set, NFTNL_EXPR_CT_SREG, NFT_REG_2);
}

void RuleBuilder::overwrite(nft_payload_bases base, std::uint32_t offset, std::uint32_t size,
                            std::uint32_t from) {
    nftnl_expr* write = add("payload");
    nftnl_expr_set_u32(write, NFTNL_EXPR_PAYLOAD_BASE, base);
    nftnl_expr_set_u32(write, NFTNL_EXPR_PAYLOAD_OFFSET, offset);
    nftnl_expr_set_u32(write, NFTNL_EXPR_PAYLOAD_LEN, size);
    nftnl_expr_set_u32(write, NFTNL_EXPR_PAYLOAD_SREG, from);
}

void RuleBuilder::log(std::uint16_t group) {
    nftnl_expr* log = add("log");
    nftnl_expr_set_u16(log, NFTNL_EXPR_LOG_GROUP, group);
}

void RuleBuilder::masquerade() {
    add("masq");
}

void RuleBuilder::rejectWithReset() {
    nftnl_expr* reject = add("reject");
    nftnl_expr_set_u32(reject, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_TCP_RST);
    nftnl_expr_set_u8(reject, NFTNL_EXPR_REJECT_CODE, 0);
}

void RuleBuilder::rejectAsForbidden() {
    nftnl_expr* reject = add("reject");
    nftnl_expr_set_u32(reject, NFTNL_EXPR_REJECT_TYPE, NFT_REJECT_ICMP_UNREACH);
    nftnl_expr_set_u8(reject, NFTNL_EXPR_REJECT_CODE,
                      family == nft::ip4 ? ICMP_PKT_FILTERED : ICMPV6_ADM_PROHIBITED);
}

void RuleBuilder::drop() {
    decide(NF_DROP);
}

void RuleBuilder::accept() {
    decide(NF_ACCEPT);
}

void RuleBuilder::jumpTo(const char* chain) {
    done(nftnl_expr_set_str(decide(static_cast<std::uint32_t>(NFT_JUMP)), NFTNL_EXPR_IMM_CHAIN, chain));
}

nftnl_expr* RuleBuilder::decide(std::uint32_t verdict) {
    nftnl_expr* decision = add("immediate");
    nftnl_expr_set_u32(decision, NFTNL_EXPR_IMM_DREG, NFT_REG_VERDICT);
    nftnl_expr_set_u32(decision, NFTNL_EXPR_IMM_VERDICT, verdict);
    return decision;
}

void RuleBuilder::goTo(const char* chain) {
    done(nftnl_expr_set_str(decide(static_cast<std::uint32_t>(NFT_GOTO)), NFTNL_EXPR_IMM_CHAIN, chain));
}

void RuleBuilder::appendTo(Batch& batch) {
    batch.add(
        NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND,
        [this](nlmsghdr& message) { nftnl_rule_nlmsg_build_payload(&message, rule.get()); }, family);
}

}  // namespace firewall
