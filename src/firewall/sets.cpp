#include "firewall/sets.h"

#include <arpa/inet.h>
#include <errno.h>
#include <libnftnl/common.h>
#include <libnftnl/expr.h>
#include <libnftnl/set.h>
#include <libnftnl/udata.h>
#include <linux/netfilter/nf_tables.h>
#include <string.h>

#include <algorithm>
#include <memory>

#include "firewall/memory.h"
#include "firewall/rules.h"
#include "netlink/request.h"

namespace firewall {

namespace {

// The types of nft(8), six bits each. They make it show the elements in their own form.
constexpr std::uint32_t typeAddress = 7;
constexpr std::uint32_t typeProtocol = 12;
constexpr std::uint32_t typePort = 13;
constexpr std::uint32_t typeInterface = 20;
constexpr std::uint32_t typeUser = 24;
constexpr std::uint32_t typeBits = 6;
constexpr std::uint32_t keyType = (typeAddress << typeBits | typeProtocol) << typeBits | typePort;
constexpr std::uint32_t targetType = typeAddress << typeBits | typePort;
constexpr std::uint32_t liveType = keyType << 2 * typeBits | targetType;
constexpr std::uint32_t hairpinType = typeInterface << typeBits | typeInterface;

// The size of a set of sources. Sources beyond it are not limited.
constexpr std::uint32_t sourceLimit = 65536;
// An entry takes less than 100 bytes: well within a message of a batch.
constexpr std::size_t entriesPerMessage = 128;

/// A key of the map as the kernel's registers hold it: each part takes 32 bits.
struct KeyBytes {
    std::uint32_t address;  // network order
    std::uint8_t protocol;
    std::uint8_t padding[3];
    std::uint16_t port;  // network order
    std::uint16_t portPadding;
};
static_assert(sizeof(KeyBytes) == 12);

struct TargetBytes {
    std::uint32_t address;  // network order
    std::uint16_t port;     // network order
    std::uint16_t padding;
};
static_assert(sizeof(TargetBytes) == 8);

struct LiveBytes {
    KeyBytes key;
    TargetBytes target;
};
static_assert(sizeof(LiveBytes) == 20);

struct HairpinBytes {
    std::uint32_t incoming;  // host order, as the kernel compares them
    std::uint32_t outgoing;
};

using SetObject = std::unique_ptr<nftnl_set, decltype(&nftnl_set_free)>;

SetObject makeSet(const char* name, std::uint8_t family = nft::ip4) {
    SetObject set(made(nftnl_set_alloc()), &nftnl_set_free);
    nftnl_set_set_u32(set.get(), NFTNL_SET_FAMILY, family);
    done(nftnl_set_set_str(set.get(), NFTNL_SET_TABLE, nft::table));
    done(nftnl_set_set_str(set.get(), NFTNL_SET_NAME, name));
    return set;
}

/// A set to be made.
SetObject makeSet(const char* name, std::uint32_t number, std::uint32_t keyType, std::size_t keyBytes,
                  std::uint8_t family = nft::ip4) {
    SetObject set = makeSet(name, family);
    nftnl_set_set_u32(set.get(), NFTNL_SET_ID, number);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_TYPE, keyType);
    nftnl_set_set_u32(set.get(), NFTNL_SET_KEY_LEN, static_cast<std::uint32_t>(keyBytes));
    return set;
}

void addSet(Batch& batch, const SetObject& set, std::uint8_t family = nft::ip4) {
    batch.add(
        NFT_MSG_NEWSET, NLM_F_CREATE,
        [&set](nlmsghdr& message) { nftnl_set_nlmsg_build_payload(&message, set.get()); }, family);
}

KeyBytes bytesOf(const NatKey& key) {
    return {key.destination, key.protocol, {0, 0, 0}, htons(key.port), 0};
}

TargetBytes bytesOf(const NatTarget& target) {
    return {target.address, htons(target.port), 0};
}

LiveBytes bytesOf(const Element& element) {
    return {bytesOf(element.key), bytesOf(element.target)};
}

/// Puts a key among a set's elements, with a target when the set is a map.
template <typename Key>
void put(const SetObject& set, const Key& key, const TargetBytes* target = nullptr, std::uint32_t flags = 0) {
    nftnl_set_elem* entry = made(nftnl_set_elem_alloc());
    done(nftnl_set_elem_set(entry, NFTNL_SET_ELEM_KEY, &key, sizeof key));
    if (target) done(nftnl_set_elem_set(entry, NFTNL_SET_ELEM_DATA, target, sizeof *target));
    if (flags != 0) nftnl_set_elem_set_u32(entry, NFTNL_SET_ELEM_FLAGS, flags);
    nftnl_set_elem_add(set.get(), entry);  // the set owns it from now on
}

/// Appends one change of one set. `putEntry` puts the elements of an entry into the set.
template <typename Entry, typename PutEntry>
void changeSet(Batch& batch, Change change, const char* name, std::span<const Entry> entries,
               PutEntry putEntry, std::uint8_t family = nft::ip4) {
    const bool adds = change == Change::add;
    while (!entries.empty()) {
        const auto part = entries.first(std::min(entries.size(), entriesPerMessage));
        entries = entries.subspan(part.size());
        const SetObject set = makeSet(name, family);
        for (const Entry& entry : part) putEntry(set, entry);
        batch.add(
            adds ? NFT_MSG_NEWSETELEM : NFT_MSG_DELSETELEM, adds ? NLM_F_CREATE | NLM_F_EXCL : 0,
            [&set](nlmsghdr& message) { nftnl_set_elems_nlmsg_build_payload(&message, set.get()); }, family);
    }
}

void addUsersOf(Batch& batch, std::span<const std::uint32_t> users, std::uint8_t family) {
    changeSet(
        batch, Change::add, nft::guarded, users,
        [](const SetObject& set, std::uint32_t user) { put(set, user); }, family);
}

/// Reads the counters of elements, whose answers come one by one in the order of the request.
class TrafficReader {
public:
    /// Lifetime: both outlive the reader.
    TrafficReader(std::span<const Element> elements, std::span<NatTraffic> traffic)
        : elements(elements), traffic(traffic) {}

    void take(const nlmsghdr& message) {
        const SetObject set(made(nftnl_set_alloc()), &nftnl_set_free);
        if (nftnl_set_elems_nlmsg_parse(&message, set.get()) == 0)
            nftnl_set_elem_foreach(set.get(), &entry, this);
    }

    /// How many elements are done: up to the last one answered.
    [[nodiscard]] std::size_t done() const { return next; }

private:
    static int entry(nftnl_set_elem* entry, void* reader) {
        static_cast<TrafficReader*>(reader)->take(*entry);
        return 0;
    }

    void take(nftnl_set_elem& entry) {
        std::uint32_t size = 0;
        const void* key = nftnl_set_elem_get(&entry, NFTNL_SET_ELEM_KEY, &size);
        while (next < elements.size() && !isKeyOf(elements[next], key, size)) ++next;
        if (next == elements.size()) return;
        const std::size_t found = next++;
        const auto* counter =
            static_cast<const nftnl_expr*>(nftnl_set_elem_get(&entry, NFTNL_SET_ELEM_EXPR, &size));
        if (!counter) return;
        traffic[found] = {nftnl_expr_get_u64(counter, NFTNL_EXPR_CTR_PACKETS),
                          nftnl_expr_get_u64(counter, NFTNL_EXPR_CTR_BYTES)};
    }

    static bool isKeyOf(const Element& element, const void* key, std::uint32_t size) {
        const LiveBytes wanted = bytesOf(element);
        return key && size == sizeof wanted && ::memcmp(key, &wanted, sizeof wanted) == 0;
    }

    std::span<const Element> elements;
    std::span<NatTraffic> traffic;
    std::size_t next = 0;
};

}  // namespace

void addMap(Batch& batch) {
    const SetObject map = makeSet(nft::map, setnumber::map, keyType, sizeof(KeyBytes));
    nftnl_set_set_u32(map.get(), NFTNL_SET_FLAGS, NFT_SET_MAP);
    nftnl_set_set_u32(map.get(), NFTNL_SET_DATA_TYPE, targetType);
    nftnl_set_set_u32(map.get(), NFTNL_SET_DATA_LEN, sizeof(TargetBytes));
    addSet(batch, map);
}

void addLiveSet(Batch& batch) {
    const SetObject set = makeSet(nft::live, setnumber::live, liveType, sizeof(LiveBytes));
    nftnl_set_add_expr(set.get(), made(nftnl_expr_alloc("counter")));  // the set owns it from now on
    addSet(batch, set);
}

void addUserSet(Batch& batch, std::uint8_t family) {
    const std::uint32_t number = family == nft::ip6 ? setnumber::usersOfIp6 : setnumber::users;
    const SetObject set = makeSet(nft::guarded, number, typeUser, sizeof(std::uint32_t), family);
    // A note for nft(8), which would otherwise show the numbers with their bytes reversed: type, length,
    // value.
    constexpr std::uint8_t hostOrder[] = {NFTNL_UDATA_SET_KEYBYTEORDER, 4, 1, 0, 0, 0};
    done(nftnl_set_set_data(set.get(), NFTNL_SET_USERDATA, hostOrder, sizeof hostOrder));
    addSet(batch, set, family);
}

void addHairpinSet(Batch& batch) {
    addSet(batch, makeSet(nft::hairpin, setnumber::hairpin, hairpinType, sizeof(HairpinBytes)));
}

void addInsideSet(Batch& batch) {
    const SetObject set = makeSet(nft::inside, setnumber::inside, typeAddress, sizeof(std::uint32_t));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_INTERVAL);
    addSet(batch, set);
}

void addSourceSet(Batch& batch, const char* name, std::uint32_t number, std::uint32_t flags) {
    const SetObject set = makeSet(name, number, typeAddress, sizeof(std::uint32_t));
    nftnl_set_set_u32(set.get(), NFTNL_SET_FLAGS, NFT_SET_EVAL | flags);
    nftnl_set_set_u32(set.get(), NFTNL_SET_DESC_SIZE, sourceLimit);
    addSet(batch, set);
}

void removeSet(Batch& batch, const char* name) {
    const SetObject set = makeSet(name);
    batch.add(NFT_MSG_DELSET, 0,
              [&set](nlmsghdr& message) { nftnl_set_nlmsg_build_payload(&message, set.get()); });
}

void addUsersOfIp6(Batch& batch, std::span<const std::uint32_t> users) {
    addUsersOf(batch, users, nft::ip6);
}

void addUsers(Batch& batch, std::span<const std::uint32_t> users, bool alsoIp6) {
    addUsersOf(batch, users, nft::ip4);
    if (alsoIp6) addUsersOfIp6(batch, users);
}

void changeElements(Batch& batch, Change change, std::span<const Element> elements) {
    changeSet(batch, change, nft::map, elements, [change](const SetObject& set, const Element& element) {
        const TargetBytes target = bytesOf(element.target);
        put(set, bytesOf(element.key), change == Change::add ? &target : nullptr);  // a removal names the key
    });
}

void changeLive(Batch& batch, Change change, std::span<const Element> elements) {
    changeSet(batch, change, nft::live, elements,
              [](const SetObject& set, const Element& element) { put(set, bytesOf(element)); });
}

void changeHairpins(Batch& batch, Change change, std::span<const std::uint32_t> indexes) {
    changeSet(batch, change, nft::hairpin, indexes, [](const SetObject& set, std::uint32_t index) {
        put(set, HairpinBytes{index, index});
    });
}

void changeInside(Batch& batch, Change change, std::span<const links::AddressRange> ranges) {
    changeSet(batch, change, nft::inside, ranges, [](const SetObject& set, const links::AddressRange& range) {
        put(set, htonl(range.first));
        // The end is the first address after the range. A range that reaches the last address has no end.
        if (range.last + 1 != 0) put(set, htonl(range.last + 1), nullptr, NFT_SET_ELEM_INTERVAL_END);
    });
}

std::vector<NatTraffic> readTraffic(netlink::Socket& socket, std::span<const Element> elements) {
    std::vector<NatTraffic> traffic(elements.size());
    std::vector<char> buffer(Batch::maximumMessage);
    // The kernel puts each element into an answer of its own: as many as fit the smallest socket buffer.
    for (std::size_t from = 0; from < elements.size();) {
        const auto part = elements.subspan(from, std::min(elements.size() - from, entriesPerMessage));
        const SetObject set = makeSet(nft::live);
        for (const Element& element : part) put(set, bytesOf(element));
        nlmsghdr* message = nftnl_nlmsg_build_hdr(buffer.data(), NFT_MSG_GETSETELEM, nft::ip4, 0, 0);
        nftnl_set_elems_nlmsg_build_payload(message, set.get());
        TrafficReader reader(part, std::span(traffic).subspan(from));
        const tk::Status read =
            netlink::request(socket, *message, [&reader](const nlmsghdr& answer) { reader.take(answer); });
        if (read.isOk())
            from += part.size();
        else if (read.code() == ENOENT)
            from += reader.done() + 1;  // it stops at the first one that it does not have
        else
            break;
    }
    return traffic;
}

}  // namespace firewall
