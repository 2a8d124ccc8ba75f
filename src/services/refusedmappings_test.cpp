#include "services/refusedmappings.h"

#include <initializer_list>

#include <gtest/gtest.h>

namespace gateway {

namespace {

using contract::MappingRefusal;

MappingRefusal refusalOf(std::uint16_t port, std::uint64_t time, const std::string& reason = "no room") {
    return {.time = time, .requester = 1, .externalPort = port, .protocol = 6, .code = 501, .reason = reason};
}

TEST(RefusedMappings, AreNoneAtFirst) {
    EXPECT_TRUE(RefusedMappings().all().empty());
}

TEST(RefusedMappings, EqualOnesInARowAreCountedWithTheTimeOfTheLast) {
    RefusedMappings refused;
    for (const std::uint64_t time : {5U, 6U, 9U}) refused.add(refusalOf(80, time));
    MappingRefusal expected = refusalOf(80, 9);
    expected.count = 3;
    EXPECT_EQ(refused.all(), std::deque<MappingRefusal>{expected});
}

TEST(RefusedMappings, OnesThatDifferInAnythingElseStandAlone) {
    RefusedMappings refused;
    MappingRefusal other = refusalOf(80, 5);
    refused.add(other);
    std::size_t count = 1;
    for (auto change :
         {+[](MappingRefusal& it) { it.requester = 2; }, +[](MappingRefusal& it) { it.protocol = 17; },
          +[](MappingRefusal& it) { it.externalPort = 81; },
          +[](MappingRefusal& it) { it.internalClient = 3; },
          +[](MappingRefusal& it) { it.internalPort = 81; }, +[](MappingRefusal& it) { it.code = 718; },
          +[](MappingRefusal& it) { it.reason = "the port is taken"; }}) {
        change(other);
        refused.add(other);
        ASSERT_EQ(refused.all().size(), ++count);
        EXPECT_EQ(refused.all().back(), other);
    }
}

TEST(RefusedMappings, EqualOnesWithAnotherBetweenThemStandAlone) {
    RefusedMappings refused;
    for (const std::uint16_t port : std::initializer_list<std::uint16_t>{80, 81, 80})
        refused.add(refusalOf(port, 5));
    EXPECT_EQ(refused.all(),
              (std::deque<MappingRefusal>{refusalOf(80, 5), refusalOf(81, 5), refusalOf(80, 5)}));
}

TEST(RefusedMappings, OnlyTheLast32AreKept) {
    RefusedMappings refused;
    for (std::uint16_t port = 0; port < 40; ++port) refused.add(refusalOf(port, port));
    ASSERT_EQ(refused.all().size(), 32u);
    EXPECT_EQ(refused.all().front(), refusalOf(8, 8));
    EXPECT_EQ(refused.all().back(), refusalOf(39, 39));
}

TEST(RefusedMappings, OneControlPointDoesNotPushOutThoseOfOthers) {
    RefusedMappings refused;
    MappingRefusal other = refusalOf(80, 1);
    other.requester = 2;
    refused.add(other);
    for (std::uint16_t port = 0; port < 40; ++port) refused.add(refusalOf(port, port));
    ASSERT_EQ(refused.all().size(), 32u);
    EXPECT_EQ(refused.all()[0], other);
    EXPECT_EQ(refused.all()[1], refusalOf(9, 9));
    EXPECT_EQ(refused.all().back(), refusalOf(39, 39));
}

TEST(RefusedMappings, AnotherControlPointFindsRoomThough) {
    RefusedMappings refused;
    for (std::uint16_t port = 0; port < 32; ++port) refused.add(refusalOf(port, port));
    MappingRefusal other = refusalOf(80, 40);
    other.requester = 2;
    refused.add(other);
    ASSERT_EQ(refused.all().size(), 32u);
    EXPECT_EQ(refused.all().front(), refusalOf(1, 1));
    EXPECT_EQ(refused.all().back(), other);
}

TEST(RefusedMappings, ALongReasonIsCutBetweenTwoCharacters) {
    RefusedMappings refused;
    refused.add(refusalOf(80, 5, std::string(199, 'x') + "\u00e9"));
    EXPECT_EQ(refused.all().front().reason, std::string(199, 'x'));
    for (const std::uint64_t time : {6U, 7U}) refused.add(refusalOf(80, time, std::string(300, 'y')));
    EXPECT_EQ(refused.all().back().reason, std::string(200, 'y'));
    EXPECT_EQ(refused.all().back().count, 2u) << "compared as it is kept";
}

}  // namespace

}  // namespace gateway
