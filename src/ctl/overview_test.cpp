// What is asked for an overview, what it tells scripts, and what is wrong.

#include "ctl/overview.h"

#include <algorithm>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/fieldspec.h"
#include "tk/names.h"
#include "tk/testing/folder.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

using tk::testing::listOf;

/// A router with a LAN and a WAN, and one mapping.
struct OverviewTest : testing::Test {
    OverviewTest() {
        forwarding("1\n");
        bus.answer({0}, 7,
                   listOf({parseFields({"1:u32=20", "2:u32=100", "3:u32=0"}),
                           parseFields({"1:u32=80", "2:u32=101", "3:u32=0"})}));
        bus.answer({20, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=1", "0x10005:string=lan0", "0x1000E:bool=yes"}),
                           parseFields({"0xFE0001:u32=2", "0x10005:string=wan0", "0x1000E:bool=yes"})}));
        addresses("198.51.100.1");
        bus.answer({80, 0}, tk::command::get, parseFields({"1:bool=yes", "2:bool=no", "3:bool=no"}));
        bus.answer({80, 0}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=4", "0xFE000A:bool=no", "1:u32=1", "2:u32=2"}),
                           parseFields({"0xFE0001:u32=7", "0xFE000A:bool=no", "1:u32=2", "2:u32=1"})}));
        bus.answer({80, 1}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=3", "1:u32=2", "2:u32=80", "3:u32=6",
                                        "4:be32=192.0.2.2", "5:u32=8080", "6:bool=yes", "7:string=web",
                                        "8:be32=192.0.2.2", "9:u64=1767323045"})}));
        bus.answer({80, 1}, 2,
                   listOf({parseFields({"1:u64=1767323045", "2:be32=192.0.2.3", "3:u32=22", "4:u32=6",
                                        "5:be32=192.0.2.3", "6:u32=22", "7:u32=501", "8:string=port taken",
                                        "9:u32=3"})}));
        bus.answer({20, 5}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=3", "1100:u64=12", "1101:u64=3456"})}));
    }
    void addresses(const std::string& outer) {
        bus.answer({20, 1}, tk::command::getAll,
                   listOf({parseFields({"0xFE0001:u32=1", "1:be32=192.0.2.1", "5:u32=1"}),
                           parseFields({"0xFE0001:u32=2", "1:be32=" + outer, "5:u32=2"})}));
    }
    void forwarding(const std::string& text) { folder.write("ip_forward", text); }
    Overview read() {
        Session session(bus);
        return readOverview(session, folder.file("ip_forward"));
    }
    std::vector<std::string> problems() { return problemsOf(read()); }
    std::size_t requestsTo(std::uint32_t program) const {
        return static_cast<std::size_t>(
            std::count_if(bus.requests.begin(), bus.requests.end(), [&](const auto& request) {
                return request.content.get_u32_array(tk::field::destination).front() == program;
            }));
    }
    tk::testing::Folder folder;
    tk::testing::ScriptedBus bus;
};

TEST_F(OverviewTest, TellsScriptsEverything) {
    Json told = overviewToJson(read());
    for (Json& program : told["programs"]) program.erase("user");  // as this machine calls it
    EXPECT_EQ(
        lineOf(told),
        R"({"running":true,"enabled":true,)"
        R"("settings":{"enabled":true,"allow-disable-external":false,"show-dummy-rule":false},)"
        R"("interfaces":[{"id":4,"interface":1,"name":"lan0","type":"internal","disabled":false},)"
        R"({"id":7,"interface":2,"name":"wan0","type":"external","disabled":false}],)"
        R"("discoverable":[{"interface":1,"name":"lan0","address":"192.0.2.1",)"
        R"("url":"http://192.0.2.1:2828/gateway.xml"}],)"
        R"("external":[{"interface":2,"name":"wan0","address":"198.51.100.1"}],)"
        R"("mappings":[{"interface":2,"externalPort":80,"protocol":"tcp","internalClient":"192.0.2.2",)"
        R"("internalPort":8080,"enabled":true,"description":"web","requestedBy":"192.0.2.2",)"
        R"("since":"2026-01-02T03:04:05Z","packets":12,"bytes":3456}],)"
        R"("refused":[{"time":"2026-01-02T03:04:05Z","requestedBy":"192.0.2.3","externalPort":22,)"
        R"("protocol":"tcp","internalClient":"192.0.2.3","internalPort":22,"code":501,)"
        R"("reason":"port taken","times":3}],)"
        R"("programs":[{"number":20,"name":"routerd","pid":100},{"number":80,"name":"upnpd","pid":101}],)"
        R"("problems":[]})");
}

TEST_F(OverviewTest, ADaemonThatIsNotThereIsNotAsked) {
    bus.answer({0}, 7, listOf({parseFields({"1:u32=20", "2:u32=100", "3:u32=0"})}));
    EXPECT_EQ(problems(),
              std::vector<std::string>{"upnpd is not running: it is switched off, or failed; to start "
                                       "it: tkctl upnp set enabled=yes"});
    EXPECT_EQ(requestsTo(80), 0U) << "a request would start it";
    EXPECT_EQ(overviewToJson(read())["enabled"], Json());
    EXPECT_EQ(overviewToJson(read())["settings"], Json());
}

TEST_F(OverviewTest, ARouterThatDoesNotTellOfProgramsIsAskedForTheDaemon) {
    bus.answer({0}, 7, tk::errorMsg(tk::error::noSuchCommand, "no such command"));
    EXPECT_EQ(problems(), std::vector<std::string>{});
    EXPECT_EQ(read().mappings.size(), 1U);
}

TEST_F(OverviewTest, ADaemonThatHangsIsAskedOnce) {
    bus.answer({80, 0}, tk::command::get, tk::errorMsg(tk::error::timedOut, "no answer"));
    const auto found = problems();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_EQ(found[0].substr(0, 32), "upnpd does not answer: no answer");
    EXPECT_EQ(requestsTo(80), 1U);
    EXPECT_EQ(bus.requestsTo({80, 0}, tk::command::get)[0].timeout, 3000U);
}

TEST_F(OverviewTest, ARouterThatHangsIsAFailure) {
    bus.answer({0}, 7, tk::errorMsg(tk::error::timedOut, "no answer"));
    EXPECT_THROW((void)read(), Failure);
}

TEST_F(OverviewTest, FindsUpnpSwitchedOff) {
    bus.answer({80, 0}, tk::command::get, parseFields({"1:bool=no"}));
    EXPECT_EQ(problems(),
              std::vector<std::string>{"UPnP is switched off; to switch it on: tkctl upnp set enabled=yes"});
    EXPECT_EQ(overviewToJson(read())["discoverable"], Json::array());
}

TEST_F(OverviewTest, FindsAKernelThatForwardsNothing) {
    forwarding("0\n");
    EXPECT_EQ(problems(), std::vector<std::string>{"the kernel forwards no packets, so no mapping works; to "
                                                   "turn it on: sysctl -w net.ipv4.ip_forward=1"});
}

TEST_F(OverviewTest, FindsNoRoles) {
    bus.answer({80, 0}, tk::command::getAll, listOf({}));
    EXPECT_EQ(problems(),
              (std::vector<std::string>{
                  "no interface is internal, so no host finds the gateway; tkctl setup proposes roles",
                  "no interface is external, so nothing can be mapped; tkctl setup proposes roles"}));
}

TEST_F(OverviewTest, FindsARoleOnAMissingInterface) {
    bus.answer({20, 0}, tk::command::getAll,
               listOf({parseFields({"0xFE0001:u32=1", "0x10005:string=lan0", "0x1000E:bool=yes"})}));
    EXPECT_EQ(problems(), std::vector<std::string>{
                              "the external interface of item 7 is missing; if it is gone for good: tkctl "
                              "upnp interface remove 7"});
}

TEST_F(OverviewTest, FindsInterfacesThatDoNotServe) {
    bus.answer({80, 0}, tk::command::getAll,
               listOf({parseFields({"0xFE0001:u32=4", "0xFE000A:bool=yes", "1:u32=1", "2:u32=2"}),
                       parseFields({"0xFE0001:u32=7", "0xFE000A:bool=no", "1:u32=2", "2:u32=1"})}));
    bus.answer({20, 1}, tk::command::getAll, listOf({}));
    EXPECT_EQ(problems(), (std::vector<std::string>{
                              "lan0 is not served; to serve it: tkctl upnp interface set 4 disabled=no",
                              "wan0 (external) has no IPv4 address"}));
    bus.answer({20, 0}, tk::command::getAll,
               listOf({parseFields({"0xFE0001:u32=1", "0x10005:string=lan0", "0x1000E:bool=yes"}),
                       parseFields({"0xFE0001:u32=2", "0x10005:string=wan0", "0x1000E:bool=no"})}));
    EXPECT_EQ(problems().at(1), "wan0 (external) is down, or has no link");
}

TEST_F(OverviewTest, FindsAnInternalInterfaceThatIsOutside) {
    bus.answer({20, 0}, 2, [](const tk::message& request) {
        return parseFields(
            request.get_u32(1) == 1
                ? std::vector<std::string>{"1:u32=2", "2:string=it carries a route to 0.0.0.0/0"}
                : std::vector<std::string>{"1:u32=2"});
    });
    EXPECT_EQ(problems(),
              std::vector<std::string>{"lan0 is internal, but outside: it carries a route to 0.0.0.0/0"});
}

struct Outer {
    const char* address;
    const char* kind;  // null: fine
};
class OuterAddress : public OverviewTest, public testing::WithParamInterface<Outer> {};
TEST_P(OuterAddress, IsToldWhenTheInternetDoesNotReachIt) {
    const auto [address, kind] = GetParam();
    addresses(address);
    std::vector<std::string> expected;
    if (kind)
        expected.push_back("wan0 has the " + std::string(kind) + " address " + address +
                           ": another router is in front; map the ports there too");
    EXPECT_EQ(problems(), expected);
}
INSTANTIATE_TEST_SUITE_P(Addresses, OuterAddress,
                         testing::Values(Outer{"10.0.0.1", "private"}, Outer{"11.0.0.1", nullptr},
                                         Outer{"172.16.0.1", "private"}, Outer{"172.31.255.1", "private"},
                                         Outer{"172.32.0.1", nullptr}, Outer{"192.168.1.2", "private"},
                                         Outer{"100.64.0.1", "shared"}, Outer{"100.128.0.1", nullptr},
                                         Outer{"169.254.3.4", "link-local"}, Outer{"198.51.100.1", nullptr}));

TEST_F(OverviewTest, AnAddressForManagementBesideAPublicOneIsNoSecondRouter) {
    bus.answer({20, 1}, tk::command::getAll,
               listOf({parseFields({"0xFE0001:u32=1", "1:be32=192.0.2.1", "5:u32=1"}),
                       parseFields({"0xFE0001:u32=2", "1:be32=192.168.100.2", "5:u32=2"}),
                       parseFields({"0xFE0001:u32=3", "1:be32=198.51.100.1", "5:u32=2"})}));
    EXPECT_EQ(problems(), std::vector<std::string>{});
}

}  // namespace
}  // namespace ctl
