#include "router/staleflows.h"

#include <gtest/gtest.h>

#include "router/testing/fakekernel.h"

namespace router {
namespace {

using testing::address;

constexpr std::uint8_t tcp = 6;
constexpr std::uint8_t udp = 17;

NatElement element(const char* target, std::uint16_t targetPort = 8080, std::uint8_t protocol = tcp) {
    return {address("198.51.100.1"), protocol, 80, address(target), targetPort};
}

Flow flow(const char* target, std::uint16_t targetPort = 8080, bool isEstablished = true,
          std::uint8_t protocol = tcp) {
    return {protocol, address("198.51.100.1"), 80, address(target), targetPort, isEstablished, false, {}};
}

class StaleFlowsTest : public ::testing::Test {
protected:
    using Elements = std::vector<NatElement>;
    void note(const Elements& removed, const Elements& added) { flows.note(removed, added); }
    StaleFlows flows;
};

TEST_F(StaleFlowsTest, FlowsOfARemovedRuleGo) {
    note({element("192.0.2.2")}, {});
    EXPECT_TRUE(flows.contains(flow("192.0.2.2")));
    EXPECT_FALSE(flows.contains(flow("198.51.100.1", 80)));  // a connection to the router itself
    EXPECT_FALSE(flows.contains(flow("192.0.2.3")));         // the rule of somebody else's table
    EXPECT_FALSE(flows.contains(flow("192.0.2.2", 8080, true, udp)));
}

TEST_F(StaleFlowsTest, FlowsOfARuleThatLeadsElsewhereNowGo) {
    note({element("192.0.2.2")}, {element("192.0.2.3")});
    EXPECT_TRUE(flows.contains(flow("192.0.2.2")));
    EXPECT_FALSE(flows.contains(flow("192.0.2.3")));
}

TEST_F(StaleFlowsTest, AFlowThatBeganBeforeItsRuleGoes) {
    note({}, {element("192.0.2.2", 8080, udp)});
    EXPECT_TRUE(flows.contains(flow("198.51.100.1", 80, false, udp)));
    EXPECT_FALSE(flows.contains(flow("192.0.2.2", 8080, false, udp)));
}

TEST_F(StaleFlowsTest, AnEstablishedConnectionToTheRouterStaysWhenItsPortIsMapped) {
    note({}, {element("192.0.2.2")});
    EXPECT_FALSE(flows.contains(flow("198.51.100.1", 80, true)));
    EXPECT_TRUE(flows.contains(flow("198.51.100.1", 80, false)));
}

TEST_F(StaleFlowsTest, AnEstablishedConnectionThatLedElsewhereBeforeItsPortIsMappedGoes) {
    note({}, {element("192.0.2.2")});
    EXPECT_TRUE(flows.contains(flow("192.0.2.3")));
    EXPECT_TRUE(flows.contains(flow("192.0.2.2", 8081)));
    EXPECT_TRUE(flows.contains(flow("198.51.100.1", 8080)));  // another port of the router
}

TEST_F(StaleFlowsTest, ARuleThatComesBackKeepsItsFlows) {
    note({element("192.0.2.2")}, {});
    note({}, {element("192.0.2.2")});
    EXPECT_FALSE(flows.contains(flow("192.0.2.2")));
}

TEST_F(StaleFlowsTest, TheLastOfSeveralChangesCounts) {
    note({}, {element("192.0.2.2")});
    note({element("192.0.2.2")}, {element("192.0.2.3")});
    note({element("192.0.2.3")}, {});
    EXPECT_TRUE(flows.contains(flow("192.0.2.2")));
    EXPECT_TRUE(flows.contains(flow("192.0.2.3")));
    EXPECT_FALSE(flows.contains(flow("198.51.100.1", 80, false)));
}

TEST_F(StaleFlowsTest, TargetPortZeroIsAPortLikeAnyOther) {
    note({element("192.0.2.2", 0)}, {});
    EXPECT_TRUE(flows.contains(flow("192.0.2.2", 0)));
    EXPECT_FALSE(flows.contains(flow("192.0.2.2", 4711)));
}

TEST_F(StaleFlowsTest, SelectsWhatItsChangesHaveInCommon) {
    note({}, {element("192.0.2.2")});
    FlowSelection selection = flows.selection();
    EXPECT_EQ(selection.destination, address("198.51.100.1"));
    EXPECT_EQ(selection.protocol, tcp);
    EXPECT_EQ(selection.port, 80);
    note({}, {element("192.0.2.2", 8080, udp)});
    selection = flows.selection();
    EXPECT_EQ(selection.protocol, 0);
    EXPECT_EQ(selection.port, 80);
    note({}, {{address("203.0.113.1"), udp, 80, address("192.0.2.2"), 80}});
    EXPECT_EQ(flows.selection().destination, 0U);
}

}  // namespace
}  // namespace router
