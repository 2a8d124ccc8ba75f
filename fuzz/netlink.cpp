// What the kernel sends over netlink, datagram by datagram, to each of those who read it. The first byte chooses who it is.
// The datagrams follow as fuzz/netlink/kernel.h says.
#include <endian.h>
#include <errno.h>
#include <libmnl/libmnl.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/sock_diag.h>
#include <netinet/in.h>
#include <stdlib.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "firewall/flowlog.h"
#include "firewall/sets.h"
#include "fuzz/netlink/kernel.h"
#include "fuzz/target.h"
#include "hub/testing/fakeprocesses.h"
#include "links/monitor.h"
#include "links/routereader.h"
#include "links/rtnetlink.h"
#include "links/testing/fakekernel.h"
#include "nat/listeners.h"
#include "netlink/request.h"
#include "tk/names.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace {

using fuzz::kernel;
using fuzz::messagesIn;
using tk::testing::TestLoop;

void requireReason(const tk::Status& status) {
    fuzz::require(status.isOk() || !status.reason().empty(), "a failure says why");
}

void readAnswer() {
    constexpr std::uint32_t first = 1, last = 3;
    netlink::Socket socket;
    requireReason(socket.open(NETLINK_ROUTE));
    netlink::Answer answer(first, last);
    std::size_t visited = 0;
    answer.complete(socket, netlink::answerMilliseconds, [&visited](const nlmsghdr& message) {
        fuzz::require(message.nlmsg_seq >= first && message.nlmsg_seq <= last, "only the answer is heard");
        fuzz::require(message.nlmsg_type != NLMSG_ERROR && message.nlmsg_type != NLMSG_DONE,
                      "its end is none of it");
        ++visited;
    });
    fuzz::require(answer.isComplete() && visited <= kernel().messages, "an answer ends");
    requireReason(answer.outcome());
}

void readLinks() {
    links::RtNetlink rtnetlink;
    requireReason(rtnetlink.open());
    const auto links = rtnetlink.readLinks();
    requireReason(links.status());
    if (!links.isOk()) return;
    fuzz::require(links->size() <= kernel().messages, "each interface has a message");
    for (const links::Link& link : *links) {
        fuzz::require(link.name.find('\0') == std::string::npos, "a name ends with its text");
        fuzz::require(link.lower != link.index || link.index == 0, "no interface is below itself");
    }
}

void readAddresses() {
    links::RtNetlink rtnetlink;
    requireReason(rtnetlink.open());
    const auto addresses = rtnetlink.readAddresses();
    requireReason(addresses.status());
    if (!addresses.isOk()) return;
    fuzz::require(addresses->size() <= kernel().messages, "each address has a message");
    for (const links::LinkAddress& each : *addresses) fuzz::require(each.address != 0, "an address is one");
}

void readOne() {
    links::RtNetlink rtnetlink;
    requireReason(rtnetlink.open());
    requireReason(rtnetlink.readLink(2).status());
    std::set<std::uint32_t> interfaces;
    requireReason(rtnetlink.addInterfacesOf(1, interfaces));
    fuzz::require(!interfaces.contains(0), "an interface has an index");
    requireReason(rtnetlink.setLinkUp(2, true));
}

/// Checks how readings end.
class RoutesOwner final : public links::RouteReader::Owner {
public:
    void routesRead(const links::RouteExits& exits, bool) override {
        ++ends;
        for (const auto& [index, prefix] : exits.interfaces)
            fuzz::require(links::isBeyondPrivateRanges(prefix), "a route that counts leads out");
        for (const auto& [id, prefix] : exits.nextHops)
            fuzz::require(id != 0 && links::isBeyondPrivateRanges(prefix), "an object that counts leads out");
    }
    void routesUnread(const tk::Status& why) override {
        ++ends;
        fuzz::require(!why.isOk() && !why.reason().empty(), "a failure says why");
    }

    std::size_t ends = 0;
};

void readRoutes() {
    TestLoop loop;
    RoutesOwner owner;
    links::RouteReader reader(owner);
    requireReason(reader.open());
    reader.begin();
    loop.settle();
    reader.complete();
    fuzz::require(owner.ends == 1 && !reader.isBusy(), "a reading ends once");
}

/// Interfaces and addresses on the bus, and the zones, as the kernel tells of them.
struct World {
    explicit World(const links::LanConfig& lan) : zones(lan) {
        interfaces.attach(loop.bus, {20, 0});
        addresses.attach(loop.bus, {20, 1});
        interfaces.addWatcher(addresses);
    }
    static std::string storePath() {
        (void)::setenv("TMPDIR", "/dev/shm", 0);
        static const tk::testing::Folder folder;
        for (const auto& entry : std::filesystem::directory_iterator(folder.path))
            std::filesystem::remove(entry.path());
        return folder.file("interfaces");
    }

    TestLoop loop;
    links::RtNetlink rtnetlink;
    links::InterfaceIds ids{storePath()};
    links::testing::IdleWatcher watcher;
    links::Zones zones;
    hub::testing::FakeProcesses processes;
    links::testing::FakeRequester requester;
    links::LinkSwitch switches{{}, rtnetlink, processes};
    links::Interfaces interfaces{ids, rtnetlink, zones, {switches, requester}};
    links::Addresses addresses;
    links::Monitor monitor{rtnetlink, zones, interfaces, addresses};
};

void requireConsistent(World& world) {
    const std::uint32_t interfaceCount = world.interfaces.cmdGetCount({}).get_u32(tk::field::count);
    fuzz::require(interfaceCount <= kernel().messages, "each interface has a message");
    const tk::message list = world.addresses.cmdGetAll({});
    for (const tk::message& record : list.get_message_array(tk::field::objects)) {
        const auto address = contract::AddressRecord::fromMessage(record);
        tk::message request;
        request.insert_u32(tk::field::objectId, address.interface);
        const auto interface = contract::InterfaceRecord::fromMessage(world.interfaces.cmdGetObj(request));
        fuzz::require(interface.id == address.interface, "an address is on an interface that is there");
        fuzz::require(address.address != 0U, "an address is one");
        (void)world.zones.whyOf(interface.index);
        (void)world.zones.isInside(address.address.value_or(0));
    }
}

void monitorLinks(const links::LanConfig& lan) {
    World world(lan);
    requireReason(world.rtnetlink.open());
    const tk::Status started = world.monitor.start();
    requireReason(started);
    if (!started.isOk()) return;
    world.zones.start(world.watcher);
    requireConsistent(world);
    for (int turn = 0; turn < 3; ++turn) {
        world.loop.settle();
        requireConsistent(world);
        world.loop.advance(1000);  // whatever waits is due
    }
    requireConsistent(world);
}

/// Appends what the kernel says of an element: its key and, unless there is none, its counter.
void putElement(std::string& out, std::uint32_t sequence, std::string_view key, std::uint8_t count) {
    alignas(nlmsghdr) char buffer[512];
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWSETELEM;
    message->nlmsg_seq = sequence;
    mnl_nlmsg_put_extra_header(message, sizeof(nfgenmsg));
    nlattr* list = mnl_attr_nest_start(message, NFTA_SET_ELEM_LIST_ELEMENTS);
    nlattr* element = mnl_attr_nest_start(message, NFTA_LIST_ELEM);
    nlattr* part = mnl_attr_nest_start(message, NFTA_SET_ELEM_KEY);
    mnl_attr_put(message, NFTA_DATA_VALUE, key.size(), key.data());
    mnl_attr_nest_end(message, part);
    if (count != 0) {
        part = mnl_attr_nest_start(message, NFTA_SET_ELEM_EXPR);
        mnl_attr_put_strz(message, NFTA_EXPR_NAME, "counter");
        nlattr* counter = mnl_attr_nest_start(message, NFTA_EXPR_DATA);
        mnl_attr_put_u64(message, NFTA_COUNTER_PACKETS, htobe64(count));
        mnl_attr_put_u64(message, NFTA_COUNTER_BYTES, htobe64(count * 100ULL));
        mnl_attr_nest_end(message, counter);
        mnl_attr_nest_end(message, part);
    }
    mnl_attr_nest_end(message, element);
    mnl_attr_nest_end(message, list);
    out.append(buffer, message->nlmsg_len);
}

void putEnd(std::string& out, std::uint32_t sequence, int error) {
    alignas(nlmsghdr) char buffer[64];
    nlmsghdr* message = mnl_nlmsg_put_header(buffer);
    message->nlmsg_type = NLMSG_ERROR;
    message->nlmsg_flags = NLM_F_CAPPED;
    message->nlmsg_seq = sequence;
    static_cast<nlmsgerr*>(mnl_nlmsg_put_extra_header(message, sizeof(nlmsgerr)))->error = -error;
    out.append(buffer, message->nlmsg_len);
}

/// Here the input only says in which order the kernel tells of which element, by pairs of bytes: a library reads the
/// messages, and ends the program for some that no kernel sends.
void readTraffic() {
    constexpr std::size_t count = 3;
    const firewall::Element elements[count] = {
        {{htonl(0xC6336401), IPPROTO_TCP, 80}, {htonl(0xC0000202), 8080}},
        {{htonl(0xC6336401), IPPROTO_UDP, 53}, {htonl(0xC0000202), 53}},
        {{htonl(0xC6336401), IPPROTO_TCP, 443}, {htonl(0xC0000203), 443}},
    };
    using namespace std::string_view_literals;
    constexpr std::string_view keys[] = {
        "\xC6\x33\x64\x01\x06\0\0\0\0\x50\0\0\xC0\0\x02\x02\x1F\x90\0\0"sv,
        "\xC6\x33\x64\x01\x11\0\0\0\0\x35\0\0\xC0\0\x02\x02\0\x35\0\0"sv,
        "\xC6\x33\x64\x01\x06\0\0\0\x01\xBB\0\0\xC0\0\x02\x03\x01\xBB\0\0"sv,
        "of no element"sv,
    };
    std::string told;
    std::set<std::uint64_t> counts[count];  // that were told of each element
    std::uint32_t sequence = 1;
    for (std::string_view input = kernel().input; input.size() >= 2; input.remove_prefix(2)) {
        const std::size_t step = static_cast<unsigned char>(input[0]) % 8;
        const auto number = static_cast<std::uint8_t>(input[1]);
        if (step < std::size(keys)) putElement(told, sequence, keys[step], number);
        if (step < count) counts[step].insert(number);
        if (step >= std::size(keys))
            putEnd(told, sequence++, number == 0 ? 0 : step % 2 == 0 ? ENOENT : number);
    }
    kernel().waiting = {{0, told}};
    netlink::Socket socket;
    requireReason(socket.open(NETLINK_NETFILTER));
    const auto traffic = firewall::readTraffic(socket, elements);
    fuzz::require(traffic.size() == count, "each element has its traffic");
    for (std::size_t i = 0; i < traffic.size(); ++i) {
        fuzz::require(traffic[i].packets == 0 || counts[i].contains(traffic[i].packets),
                      "it is that of the element");
        fuzz::require(traffic[i].bytes == traffic[i].packets * 100, "packets and bytes go together");
    }
    fuzz::require(kernel().heard.size() <= count, "no element is asked for twice");
}

void logFlows() {
    TestLoop loop;
    firewall::FlowLog log;
    const tk::Status opened = log.open();
    requireReason(opened);
    kernel().heard.clear();
    if (opened.isOk()) loop.settle();
    fuzz::require(kernel().heard.size() <= kernel().messages, "each removal has a packet");
    for (const std::string& message : kernel().heard)
        fuzz::require(messagesIn(message) == 1, "a removal is one whole message");
}

void readPacket() {
    for (const fuzz::Datagram& each : kernel().waiting) {
        const auto flow = firewall::parseFlow({each.bytes.data(), each.bytes.size()});
        if (!flow) continue;
        const auto byte = [&each](std::size_t at) { return static_cast<unsigned char>(each.bytes[at]); };
        const std::size_t ports = std::size_t{byte(0)} % 16 * 4;
        fuzz::require(byte(0) / 16 == 4 && ports >= 20 && each.bytes.size() >= ports + 4,
                      "a flow has a whole header");
        fuzz::require(flow->sourcePort == byte(ports) * 256 + byte(ports + 1),
                      "the source port is that of the packet");
        fuzz::require(flow->key.port == byte(ports + 2) * 256 + byte(ports + 3),
                      "the port is that of the packet");
        fuzz::require(flow->key.protocol == byte(9), "the protocol is that of the packet");
    }
}

/// True when the number may begin at this place of a message in what the kernel tells.
template <typename Number>
bool isTold(std::size_t place, Number number) {
    return std::any_of(kernel().waiting.begin(), kernel().waiting.end(), [&](const fuzz::Datagram& each) {
        for (std::size_t at = place; at + sizeof number <= each.bytes.size(); at += NLMSG_ALIGNTO)
            if (std::memcmp(each.bytes.data() + at, &number, sizeof number) == 0) return true;
        return false;
    });
}

/// No socket listens here, so the look-ups cannot be tried; but they are made all the same.
void askForListeners() {
    const bool showsSocket = isTold<std::uint16_t>(offsetof(nlmsghdr, nlmsg_type), SOCK_DIAG_BY_FAMILY);
    // The kernel negates the number, but a positive one is taken for the same.
    constexpr std::size_t errorPlace = sizeof(nlmsghdr);
    const bool showsAbsence = isTold(errorPlace, -ENOENT) || isTold(errorPlace, ENOENT);
    nat::SocketListeners listeners;
    requireReason(listeners.open());
    for (const int protocol : {IPPROTO_TCP, IPPROTO_UDP}) {
        const contract::NatKey key{htonl(0xC6336401), static_cast<std::uint8_t>(protocol), 80};
        const auto taken = listeners.isTaken(key, 2);
        requireReason(taken.status());
        fuzz::require(!taken.isOk() || (*taken ? showsSocket : showsAbsence),
                      "a listener is what the kernel shows");
    }
}

constexpr void (*readers[])() = {
    &readAnswer,
    &readLinks,
    &readAddresses,
    &readOne,
    &readRoutes,
    [] { monitorLinks({.interfaces = {{"lan0"}}, .networks = {}}); },
    [] { monitorLinks({}); },  // routes decide what is inside
    &readTraffic,
    &logFlows,
    &readPacket,
    &askForListeners,
};

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) return 0;
    fuzz::tell(fuzz::text(data + 1, size - 1));
    readers[data[0] % std::size(readers)]();
    return 0;
}
