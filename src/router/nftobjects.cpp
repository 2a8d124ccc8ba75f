#include "router/nftobjects.h"

#include <arpa/inet.h>
#include <libnftnl/chain.h>
#include <libnftnl/set.h>
#include <libnftnl/table.h>
#include <libnftnl/udata.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "router/nftguardrules.h"
#include "router/nftnames.h"
#include "router/nftrules.h"

namespace router {

namespace {

// The types of nft(8), six bits each: so it shows the elements as what they are.
constexpr std::uint32_t typeAddress = 7;
constexpr std::uint32_t typeProtocol = 12;
constexpr std::uint32_t typePort = 13;
constexpr std::uint32_t typeInterface = 20;
constexpr std::uint32_t typeUser = 24;
constexpr std::uint32_t typeBits = 6;
constexpr std::uint32_t mapKeyType = (typeAddress << typeBits | typeProtocol) << typeBits | typePort;
constexpr std::uint32_t mapDataType = typeAddress << typeBits | typePort;
constexpr std::uint32_t liveKeyType = mapKeyType << 2 * typeBits | mapDataType;
constexpr std::uint32_t hairpinKeyType = typeInterface << typeBits | typeInterface;

constexpr std::uint32_t mapNumber = 1;  // of the sets within their transaction
constexpr std::uint32_t hairpinNumber = 2;
constexpr std::uint32_t uplinksNumber = 3;
constexpr std::uint32_t usersNumber = 4;
constexpr std::uint32_t searchesNumber = 5;
constexpr std::uint32_t requestsNumber = 6;
constexpr std::uint32_t connectionsNumber = 7;
constexpr std::uint32_t liveNumber = 8;
constexpr std::uint32_t sourceLimit = 65536;  // of a set of sources; those beyond it are not limited
constexpr std::int32_t priorityAfterDstnat = -90;
constexpr std::int32_t priorityBeforeFilter = -10;
constexpr std::int32_t priorityFilter = 0;
constexpr std::int32_t prioritySrcnat = 100;
constexpr std::size_t elementsPerMessage = 512;  // well within the 64 KiB that a list may take

/// A key of the map as the kernel's registers hold it: each part in 32 bits of its own.
struct MapKey {
    std::uint32_t address;  // network order
    std::uint8_t protocol;
    std::uint8_t padding[3];
    std::uint16_t port;  // network order
    std::uint16_t portPadding;
};
static_assert(sizeof(MapKey) == 12);

struct MapData {
    std::uint32_t address;  // network order
    std::uint16_t port;     // network order
    std::uint16_t padding;
};
static_assert(sizeof(MapData) == 8);

struct LiveKey {
    MapKey match;
    MapData target;
};
static_assert(sizeof(LiveKey) == 20);

struct HairpinKey {
    std::uint32_t incoming;  // host order, as the kernel compares them
    std::uint32_t outgoing;
};

using Table = std::unique_ptr<nftnl_table, decltype(&nftnl_table_free)>;
using Chain = std::unique_ptr<nftnl_chain, decltype(&nftnl_chain_free)>;
using Set = std::unique_ptr<nftnl_set, decltype(&nftnl_set_free)>;

Table makeTable(std::uint32_t flags) {
    Table table(nftnl_table_alloc(), &nftnl_table_free);
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FAMILY, NFPROTO_IPV4);
    nftnl_table_set_str(table.get(), NFTNL_TABLE_NAME, nft::table);
    nftnl_table_set_u32(table.get(), NFTNL_TABLE_FLAGS, flags);
    return table;
}

Set makeSet(const char* name) {
    Set set(nftnl_set_alloc(), &nftnl_set_free);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, NFPROTO_IPV4);
    nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, nft::table);
    nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name);
    return set;
}

void addSet(NftBatch& batch, const Set& set) {
    batch.add(NFT_MSG_NEWSET, NLM_F_CREATE,
              [&set](nlmsghdr& message) { nftnl_set_nlmsg_build_payload(&message, set.get()); });
}

void addMap(NftBatch& batch) {
    const Set map = makeSet(nft::map);
    nftnl_set_set_u32(map.get(), NFTNL_SET_ID, mapNumber);
    nftnl_set_set_u32(map.get(), NFTNL_SET_FLAGS, NFT_SET_MAP);
    nftnl_set_set_u32(map.get(), NFTNL_SET_KEY_TYPE, mapKeyType);
    nftnl_set_set_u32(map.get(), NFTNL_SET_KEY_LEN, sizeof(MapKey));
    nftnl_set_set_u32(map.get(), NFTNL_SET_DATA_TYPE, mapDataType);
    nftnl_set_set_u32(map.get(), NFTNL_SET_DATA_LEN, sizeof(MapData));
    addSet(batch, map);
}

void addLiveSet(NftBatch& batch) {
    const Set set = makeSet(nft::live);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, liveNumber);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, liveKeyType);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(LiveKey));
    addSet(batch, set);
}

void addHairpinSet(NftBatch& batch) {
    const Set set = makeSet(nft::hairpin);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, hairpinNumber);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, hairpinKeyType);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(HairpinKey));
    addSet(batch, set);
}

/// A set of single numbers of 32 bits: users, or interfaces.
void addNumberSet(NftBatch& batch, const char* name, std::uint32_t number, std::uint32_t type) {
    const Set set = makeSet(name);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, number);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, type);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(std::uint32_t));
    // A note for nft(8), which would else show the numbers with their bytes reversed: type, length, value.
    constexpr std::uint8_t hostOrder[] = {NFTNL_UDATA_SET_KEYBYTEORDER, 4, 1, 0, 0, 0};
    nftnl_set_set_data(set.get(), NFTNL_SET_USERDATA, hostOrder, sizeof hostOrder);
    addSet(batch, set);
}

/// A set that the rules themselves fill with the sources of packets.
void addSourceSet(NftBatch& batch, const char* name, std::uint32_t number, std::uint32_t flags) {
    const Set set = makeSet(name);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, number);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_EVAL | flags);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, typeAddress);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, sizeof(std::uint32_t));
    nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, sourceLimit);
    addSet(batch, set);
}

Chain makeChain(const char* name) {
    Chain chain(nftnl_chain_alloc(), &nftnl_chain_free);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_FAMILY, NFPROTO_IPV4);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TABLE, nft::table);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_NAME, name);
    return chain;
}

void addChain(NftBatch& batch, const Chain& chain) {
    batch.add(NFT_MSG_NEWCHAIN, NLM_F_CREATE,
              [&chain](nlmsghdr& message) { nftnl_chain_nlmsg_build_payload(&message, chain.get()); });
}

MapKey keyOf(const NatElement& element) {
    return {element.destination, element.protocol, {0, 0, 0}, htons(element.port), 0};
}

/// Appends one message with elements of one set.
void changeSet(NftBatch& batch, bool isAddition, const Set& set) {
    batch.add(isAddition ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM,
              isAddition ? NLM_F_CREATE | NLM_F_EXCL : 0,
              [&set](nlmsghdr& message) { nftnl_set_elems_nlmsg_build_payload(&message, set.get()); });
}

/// Appends a key to a set's elements, with data where it is a map's.
template <typename Key>
void addEntry(const Set& set, const Key& key, const MapData* data = nullptr) {
    nftnl_set_elem* entry = nftnl_set_elem_alloc();
    nftnl_set_elem_set(entry, NFTNL_SET_ELEM_KEY, &key, sizeof key);
    if (data) nftnl_set_elem_set(entry, NFTNL_SET_ELEM_DATA, data, sizeof *data);
    nftnl_set_elem_add(set.get(), entry);  // the set owns it from now on
}

void changeElements(NftBatch& batch, bool isAddition, std::span<const NatElement> elements) {
    while (!elements.empty()) {
        const auto part = elements.first(std::min(elements.size(), elementsPerMessage));
        elements = elements.subspan(part.size());
        const Set map = makeSet(nft::map);
        const Set live = makeSet(nft::live);
        for (const NatElement& element : part) {
            const MapKey key = keyOf(element);
            const MapData data{element.target, htons(element.targetPort), 0};
            addEntry(map, key, isAddition ? &data : nullptr);  // a removal names the key alone
            addEntry(live, LiveKey{key, data});
        }
        changeSet(batch, isAddition, map);
        changeSet(batch, isAddition, live);
    }
}

void changeHairpins(NftBatch& batch, bool isAddition, const std::set<std::uint32_t>& indexes) {
    if (indexes.empty()) return;
    const Set set = makeSet(nft::hairpin);
    for (const std::uint32_t index : indexes) addEntry(set, HairpinKey{index, index});
    changeSet(batch, isAddition, set);
}

void changeNumbers(NftBatch& batch, bool isAddition, const char* name,
                   const std::set<std::uint32_t>& numbers) {
    if (numbers.empty()) return;
    const Set set = makeSet(name);
    for (const std::uint32_t number : numbers) addEntry(set, number);
    changeSet(batch, isAddition, set);
}

}  // namespace

void addTable(NftBatch& batch, std::uint32_t flags) {
    const Table table = makeTable(flags);
    batch.add(NFT_MSG_NEWTABLE, NLM_F_CREATE,
              [&table](nlmsghdr& message) { nftnl_table_nlmsg_build_payload(&message, table.get()); });
}

void addChain(NftBatch& batch, const char* name, const char* type, std::uint32_t hook,
              std::int32_t priority) {
    const Chain chain = makeChain(name);
    nftnl_chain_set_str(chain.get(), NFTNL_CHAIN_TYPE, type);
    nftnl_chain_set_u32(chain.get(), NFTNL_CHAIN_HOOKNUM, hook);
    nftnl_chain_set_s32(chain.get(), NFTNL_CHAIN_PRIO, priority);
    addChain(batch, chain);
}

void removeTable(NftBatch& batch, bool isOurs) {
    // To remove what may be absent, it is first made sure that it is there.
    addTable(batch, isOurs ? ownerFlag : 0);
    const Table table = makeTable(0);
    batch.add(NFT_MSG_DELTABLE, 0,
              [&table](nlmsghdr& message) { nftnl_table_nlmsg_build_payload(&message, table.get()); });
}

void createTable(NftBatch& batch) {
    addTable(batch, ownerFlag);
    addMap(batch);
    addLiveSet(batch);
    addHairpinSet(batch);
    addNumberSet(batch, nft::uplinks, uplinksNumber, typeInterface);
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

void createGuard(NftBatch& batch, const GuardConfig& config) {
    if (config.limitsConnections) {
        addNumberSet(batch, nft::guarded, usersNumber, typeUser);
        addChain(batch, nft::output, "filter", NF_INET_LOCAL_OUT, priorityFilter);
        addConnectionGuard(batch);
    }
    if (config.searchesPerSecond == 0 && config.requestsPerSecond == 0 && config.connections == 0) return;
    addChain(batch, nft::input, "filter", NF_INET_LOCAL_IN, priorityFilter);
    if (config.searchesPerSecond != 0) {
        addSourceSet(batch, nft::searches, searchesNumber, NFT_SET_TIMEOUT);
        addSearchLimit(batch, searchesNumber, config.searchesPerSecond);
    }
    if (config.requestsPerSecond != 0) {
        addSourceSet(batch, nft::requests, requestsNumber, NFT_SET_TIMEOUT);
        addRequestLimit(batch, requestsNumber, config.requestsPerSecond);
    }
    if (config.connections != 0) {
        addSourceSet(batch, nft::connections, connectionsNumber, 0);
        addConnectionLimit(batch, connectionsNumber, config.connections);
    }
}

void addElements(NftBatch& batch, std::span<const NatElement> elements) {
    changeElements(batch, true, elements);
}

void removeElements(NftBatch& batch, std::span<const NatElement> elements) {
    changeElements(batch, false, elements);
}

void addUsers(NftBatch& batch, const std::set<std::uint32_t>& users) {
    changeNumbers(batch, true, nft::guarded, users);
}

void addUplinks(NftBatch& batch, const std::set<std::uint32_t>& indexes) {
    changeNumbers(batch, true, nft::uplinks, indexes);
}

void removeUplinks(NftBatch& batch, const std::set<std::uint32_t>& indexes) {
    changeNumbers(batch, false, nft::uplinks, indexes);
}

void addHairpins(NftBatch& batch, const std::set<std::uint32_t>& indexes) {
    changeHairpins(batch, true, indexes);
}

void removeHairpin(NftBatch& batch, std::uint32_t index) {
    changeHairpins(batch, false, {index});
}

}  // namespace router
