// The actions of WANIPConnection that read port mappings.

#include "services/wanipconnection.h"

#include <gtest/gtest.h>

#include "services/testing/portmappings.h"

namespace gateway {

namespace {

const Texts dummy = {"", "0", "TCP", "0", "0.0.0.0", "0", "Dummy inactive rule for windows to work", "0"};

TEST_F(PortMappings, TheDummyEntryStandsAtIndex0EvenInAnEmptyTable) {
    Texts out;
    EXPECT_EQ(count(), "0");  // although it is listed
    EXPECT_EQ(generic("0", out), 0);
    EXPECT_EQ(out, dummy);
    EXPECT_EQ(generic("1", out), 713);
    EXPECT_EQ(out, Texts());
    addMapping({});
    EXPECT_EQ(generic("0", out), 0);
    EXPECT_EQ(out, dummy);
    EXPECT_EQ(generic("1", out), 0);
    EXPECT_EQ(out, (Texts{"", "80", "TCP", "8080", "192.0.2.2", "1", "web", "0"}));
    EXPECT_EQ(generic("2", out), 713);
}

TEST_F(PortMappings, WithoutTheDummyEntryTheFirstMappingStandsAtIndex0) {
    service->setShowDummyRule(false);
    Texts out;
    EXPECT_EQ(generic("0", out), 713);
    addMapping({});
    EXPECT_EQ(count(), "1");
    EXPECT_EQ(generic("0", out), 0);
    EXPECT_EQ(out[1], "80");
    EXPECT_EQ(generic("1", out), 713);
    EXPECT_EQ(generic("4294967295", out), 713);
}

TEST_F(PortMappings, AreListedByPortAndTcpBeforeUdpWhateverTheOrderOfCreation) {
    for (const auto& [port, protocol] :
         {std::pair{"443", "UDP"}, {"8080", "TCP"}, {"443", "TCP"}, {"80", "UDP"}})
        addMapping({.externalPort = port, .protocol = protocol});
    Texts listed, out;
    for (const char* index : {"1", "2", "3", "4"}) {
        EXPECT_EQ(generic(index, out), 0);
        listed.push_back(out[1] + out[2]);
    }
    EXPECT_EQ(listed, (Texts{"80UDP", "443TCP", "443UDP", "8080TCP"}));
    EXPECT_EQ(count(), "5");
}

TEST_F(PortMappings, SpecificAlwaysAnswersTheDummyForPort0OfTcp) {
    service->setShowDummyRule(false);
    addMapping({.externalPort = "0"});
    Texts out;
    EXPECT_EQ(specific({"", "0", "TCP"}, out), 0);
    EXPECT_EQ(out, Texts(dummy.begin() + 3, dummy.end()));
    EXPECT_EQ(specific({"", "00", "TCP"}, out), 0);  // another text: the real entry
    EXPECT_EQ(out[1], "192.0.2.2");
    EXPECT_EQ(specific({"", "0", "UDP"}, out), 714);
}

TEST_F(PortMappings, SpecificFailsForARemoteHostAndForAnUnknownKey) {
    addMapping({});
    takeLog();
    Texts out;
    EXPECT_EQ(specific({"x", "80", "TCP"}, out), 714);
    EXPECT_EQ(specific({"", "81", "TCP"}, out), 714);
    EXPECT_EQ(out, Texts());
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(specific({"", "80", "TCP"}, out), 0);
    EXPECT_EQ(out, (Texts{"8080", "192.0.2.2", "1", "web", "0"}));
}

}  // namespace

}  // namespace gateway
