#include "services/portmaptable.h"

#include <vector>

#include <gtest/gtest.h>

namespace gateway {

namespace {

constexpr std::int32_t tcp = 0;
constexpr std::int32_t udp = 1;

PortMap mapOf(std::uint32_t natId) {
    PortMap map;
    map.natId = natId;
    return map;
}

/// What at() says of each place, as the rules' ids.
std::vector<std::uint32_t> listed(const PortMapTable& table) {
    std::vector<std::uint32_t> ids;
    for (std::size_t index = 0; index < table.size(); ++index) ids.push_back(table.at(index).second.natId);
    return ids;
}

/// What a walk from the first entry says.
std::vector<std::uint32_t> walked(const PortMapTable& table) {
    std::vector<std::uint32_t> ids;
    for (const auto& [id, map] : table.entries()) ids.push_back(map.natId);
    return ids;
}

using Ids = std::vector<std::uint32_t>;

TEST(PortMapTable, FindsByKey) {
    PortMapTable table;
    table.add({80, udp}, mapOf(1));
    ASSERT_TRUE(table.find({80, udp}));
    EXPECT_EQ(table.find({80, udp})->natId, 1u);
    EXPECT_FALSE(table.find({80, tcp}));
    EXPECT_FALSE(table.find({81, udp}));
}

TEST(PortMapTable, ListsByPortThenTcpBeforeUdp) {
    PortMapTable table;
    table.add({65535, udp}, mapOf(6));
    table.add({80, udp}, mapOf(3));
    table.add({64, tcp}, mapOf(1));
    table.add({65535, tcp}, mapOf(5));
    table.add({80, tcp}, mapOf(2));
    table.add({0, tcp}, mapOf(0));
    table.add({6881, udp}, mapOf(4));
    EXPECT_EQ(listed(table), (Ids{0, 1, 2, 3, 4, 5, 6}));
}

TEST(PortMapTable, ErasedOnesLeaveNoGap) {
    PortMapTable table;
    for (std::uint16_t port = 60; port < 70; ++port) table.add({port, tcp}, mapOf(port));
    table.erase({60, tcp});
    table.erase({64, tcp});
    table.erase({69, tcp});
    EXPECT_EQ(listed(table), (Ids{61, 62, 63, 65, 66, 67, 68}));
    table.erase({69, tcp});  // is not there any more
    EXPECT_EQ(table.size(), 7u);
    EXPECT_EQ(listed(table), walked(table));
}

TEST(PortMapTable, ClearedOneStartsAgain) {
    PortMapTable table;
    for (std::uint16_t port = 0; port < 200; ++port) table.add({port, udp}, mapOf(port));
    table.clear();
    EXPECT_EQ(table.size(), 0u);
    table.add({100, tcp}, mapOf(7));
    EXPECT_EQ(listed(table), Ids{7});
}

TEST(PortMapTable, HoldsEveryPortOfBothProtocols) {
    PortMapTable table;
    for (std::uint32_t port = 0; port <= 65535; ++port)
        for (const std::int32_t protocol : {udp, tcp})
            table.add({static_cast<std::uint16_t>(port), protocol}, mapOf(2 * port + (protocol == udp)));
    ASSERT_EQ(table.size(), 131072u);
    for (std::uint32_t index = 0; index < table.size(); index += 37)
        ASSERT_EQ(table.at(index).second.natId, index);
    EXPECT_EQ(table.at(131071).second.natId, 131071u);
}

TEST(PortMapTable, ListsAsAWalkDoesBetweenAnyTwoChanges) {
    PortMapTable table;
    std::uint32_t number = 1;
    for (int change = 0; change < 400; ++change) {
        number = number * 1103515245 + 12345;
        const Id id{static_cast<std::uint16_t>(number >> 8 & 0x1FF),
                    static_cast<std::int32_t>(number >> 30 & 1)};
        if (table.find(id))
            table.erase(id);
        else
            table.add(id, mapOf(number));
        ASSERT_EQ(listed(table), walked(table)) << change;
    }
    EXPECT_GT(table.size(), 50u);
}

}  // namespace

}  // namespace gateway
