// The list of all port mappings, on external interfaces that come and go.

#include "core/mappinglist.h"

#include <vector>

#include "contract/mappings.h"
#include "services/testing/servicecalls.h"
#include "tk/names.h"
#include "tracking/testing/trackingfixture.h"

namespace gateway {

namespace {

using contract::MappingRecord;
/// The interface and the external port of a mapping.
using Place = std::pair<std::uint32_t, std::uint16_t>;

class MappingListTest : public TrackingTest {
protected:
    void SetUp() override {
        TrackingTest::SetUp();
        if (!captures) return;
        loop.bus.answer({20, 5}, tk::command::addObject, [this](const tk::message&) {
            tk::message reply;
            reply.insert_u32(tk::field::objectId, ++lastRule);
            return reply;
        });
    }

    UPNPStatus map(std::uint32_t interface, std::uint32_t port, const std::string& protocol = "TCP",
                   const std::string& description = "web", const std::string& lease = "0") {
        std::vector<std::string> out;
        return call(*tracking.deviceOf(interface)->ipConnection, "AddPortMapping",
                    {"", std::to_string(port), protocol, "8080", "192.0.2.2", "1", description, lease}, out);
    }
    void unmap(std::uint32_t interface, std::uint32_t port) {
        std::vector<std::string> out;
        EXPECT_EQ(call(*tracking.deviceOf(interface)->ipConnection, "DeletePortMapping",
                       {"", std::to_string(port), "TCP"}, out),
                  0);
    }
    void mapAll(std::uint32_t interface, std::uint32_t first, std::uint32_t count) {
        for (std::uint32_t port = first; port < first + count; ++port) EXPECT_EQ(map(interface, port), 0);
    }
    void removeRole(std::uint32_t interface) { tracking.stopRole(tracking.deviceOf(interface)); }
    void giveRole(std::uint32_t interface) { tracking.startRole(tracking.deviceOf(interface)); }

    tk::message ask(std::uint32_t command, tk::message request = {}) {
        tk::stamp(request, {1000}, 1, tk::Kind::request, command);
        return list.handle(request);
    }
    /// One page from `next` on, which is set to where the following one starts.
    std::vector<MappingRecord> page(std::uint32_t& next) {
        tk::message request;
        if (next != tk::unassigned) request.insert_u32(tk::field::next, next);
        const tk::message reply = ask(tk::command::getAll, request);
        EXPECT_TRUE(reply.has_array(tk::field::objects));
        EXPECT_LT(reply.serialise().size(), 1024u * 1024) << "the frames of a user other than root";
        next = reply.get_u32(tk::field::next, tk::unassigned);
        std::vector<MappingRecord> records;
        for (const tk::message& record : reply.get_message_array(tk::field::objects))
            records.push_back(MappingRecord::fromMessage(record));
        return records;
    }
    /// The whole list. `between` is called before each page but the first.
    template <typename Between>
    std::vector<Place> walk(Between between) {
        std::vector<Place> places;
        std::uint32_t next = tk::unassigned;
        do {
            if (next != tk::unassigned) between();
            for (const MappingRecord& record : page(next))
                places.emplace_back(record.interface, record.externalPort);
        } while (next != tk::unassigned);
        return places;
    }
    std::vector<Place> walk() {
        return walk([] {});
    }
    static std::vector<Place> places(std::uint32_t interface, std::uint32_t first, std::uint32_t count) {
        std::vector<Place> all;
        for (std::uint32_t port = first; port < first + count; ++port)
            all.emplace_back(interface, static_cast<std::uint16_t>(port));
        return all;
    }
    std::uint32_t count() { return ask(tk::command::getCount).get_u32(tk::field::count, tk::unassigned); }

    std::uint32_t lastRule = 40;
    MappingList list{tracking};
};

std::vector<Place> operator+(std::vector<Place> left, const std::vector<Place>& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

TEST_F(MappingListTest, OfNothingIsOneEmptyPage) {
    addDevice(7, Role::internal, "127.0.0.1");
    std::uint32_t next = tk::unassigned;
    EXPECT_TRUE(page(next).empty());
    EXPECT_EQ(next, tk::unassigned);
    EXPECT_EQ(count(), 0u);
}

TEST_F(MappingListTest, SaysAllOfAMappingWithoutTheDummyEntry) {
    addDevice(8, Role::external, "198.51.100.1");
    map(8, 80, "UDP", "a <text>\n");
    std::uint32_t next = tk::unassigned;
    const MappingRecord expected{41,   8,    80,           17, inet_addr("192.0.2.2"),
                                 8080, true, "a <text>\n", 0,  tk::testing::ManualClock::firstDate};
    EXPECT_EQ(page(next), std::vector<MappingRecord>{expected});
    EXPECT_EQ(next, tk::unassigned);
    EXPECT_EQ(count(), 1u);
}

TEST_F(MappingListTest, GoesFromPageToPageAndFromInterfaceToInterface) {
    addDevice(70000, Role::external, "198.51.100.1");  // an id of any size
    addDevice(8, Role::external, "203.0.113.1");
    addDevice(9, Role::external, "203.0.113.2");
    mapAll(70000, 1, 300);
    mapAll(8, 65000, 300);
    EXPECT_EQ(count(), 600u);
    EXPECT_EQ(walk(), places(8, 65000, 300) + places(70000, 1, 300));
    std::uint32_t next = tk::unassigned;
    EXPECT_EQ(page(next).size(), 256u);
    EXPECT_EQ(page(next).size(), 256u);
    EXPECT_EQ(page(next).size(), 88u);
    removeRole(70000);
}

TEST_F(MappingListTest, ThatFillsItsPageIsTheLastOne) {
    addDevice(8, Role::external, "198.51.100.1");
    mapAll(8, 65535 - 255, 256);
    std::uint32_t next = tk::unassigned;
    EXPECT_EQ(page(next).size(), 256u);
    EXPECT_EQ(next, tk::unassigned);
}

TEST_F(MappingListTest, GoesOnBetweenTheProtocolsOfOnePort) {
    addDevice(8, Role::external, "198.51.100.1");
    mapAll(8, 1, 255);
    map(8, 65535, "UDP");
    map(8, 65535, "TCP");
    EXPECT_EQ(walk().size(), 257u);
    std::uint32_t next = tk::unassigned;
    EXPECT_EQ(page(next).back().protocol, 6);
    EXPECT_EQ(page(next).front().protocol, 17);
}

TEST_F(MappingListTest, NeitherRepeatsNorSkipsWhatStaysWhileMappingsComeAndGo) {
    addDevice(8, Role::external, "198.51.100.1");
    mapAll(8, 1000, 600);
    // Where the second page would start, and on both sides of it.
    const std::vector<Place> listed = walk([this] {
        if (tracking.deviceOf(8)->ipConnection->mappings().contains({1256, 0})) {
            for (const std::uint32_t port : {1000U, 1255U, 1256U, 1257U}) unmap(8, port);
            map(8, 10);
            map(8, 1256, "UDP");
        }
    });
    EXPECT_EQ(listed, places(8, 1000, 256) + places(8, 1256, 1) + places(8, 1258, 342));
}

TEST_F(MappingListTest, NeitherRepeatsNorSkipsWhatStaysWhileInterfacesComeAndGo) {
    for (const std::uint32_t interface : {3U, 5U, 9U}) {
        addDevice(interface, Role::external, "198.51.100.1");
        mapAll(interface, 1, 300);
    }
    int pages = 1;
    const std::vector<Place> listed = walk([&] {
        if (++pages == 2) removeRole(3);  // the list is within it
        if (pages == 2) addDevice(1, Role::external, "198.51.100.9");
        if (pages == 2) mapAll(1, 1, 10);
        if (pages == 3) removeRole(1);
        if (pages == 3) giveRole(3);
    });
    EXPECT_EQ(listed, places(3, 1, 256) + places(5, 1, 300) + places(9, 1, 300));
    EXPECT_EQ(count(), 600u);
}

TEST_F(MappingListTest, KeepsItsPagesBelowTheLargestFrameWhateverTheDescriptions) {
    addDevice(8, Role::external, "198.51.100.1");
    const std::string large(std::size_t{120} * 1024, 'x');
    for (std::uint32_t port = 1; port <= 8; ++port) EXPECT_EQ(map(8, port, "TCP", large), 0);
    map(8, 9, "TCP", "short");
    EXPECT_EQ(walk(), places(8, 1, 9));
}

TEST_F(MappingListTest, HasTheRefusalsOfAllInterfacesEvenAfterTheirEnd) {
    addDevice(8, Role::external, "198.51.100.1");
    addDevice(9, Role::external, "203.0.113.1");
    EXPECT_EQ(map(8, 80, "TCP", "web", "60"), 725);
    EXPECT_EQ(map(9, 81, "TCP", "web", "60"), 725);
    removeRole(8);
    const tk::message reply = ask(contract::recentRefusals);
    std::vector<std::uint16_t> ports;
    for (const tk::message& record : reply.get_message_array(tk::field::objects))
        ports.push_back(contract::MappingRefusal::fromMessage(record).externalPort);
    EXPECT_EQ(ports, (std::vector<std::uint16_t>{80, 81}));
}

TEST_F(MappingListTest, TakesNoCommandThatChangesAnything) {
    addDevice(8, Role::external, "198.51.100.1");
    map(8, 80);
    tk::message mapping;
    mapping.insert_u32(tk::field::objectId, 41);
    for (const std::uint32_t command :
         {0xFE0003u, 0xFE0005u, 0xFE0006u, 0xFE0007u, 0xFE0008u, 0xFE0009u, 0xFE000Eu, 1u, 3u}) {
        std::uint32_t code = 0;
        EXPECT_TRUE(tk::isError(ask(command, mapping), &code)) << command;
        EXPECT_EQ(code, tk::error::noSuchCommand) << command;
    }
    EXPECT_EQ(count(), 1u);
}

}  // namespace

}  // namespace gateway
