#include "ctl/overviewlayout.h"

#include <arpa/inet.h>
#include <stdlib.h>
#include <time.h>

#include <gtest/gtest.h>

#include "ctl/text.h"

namespace ctl {
namespace {

ServedInterface served(std::uint32_t id, const std::string& name, contract::Role role, const char* address) {
    ServedInterface entry;
    entry.item = id;
    entry.interface = id;
    entry.name = name;
    entry.role = role;
    entry.isRunning = true;
    entry.addresses = {inet_addr(address)};
    return entry;
}

Mapping mapped(const char* host, std::uint16_t port, const std::string& description, std::uint64_t bytes) {
    Mapping mapping;
    mapping.interface = 2;
    mapping.externalPort = port;
    mapping.protocol = 6;
    mapping.internalClient = mapping.requestedBy = inet_addr(host);
    mapping.internalPort = 8080;
    mapping.enabled = true;
    mapping.description = description;
    mapping.since = 1767323045;
    mapping.packets = bytes / 100;
    mapping.bytes = bytes;
    return mapping;
}

struct OverviewLayout : testing::Test {
    OverviewLayout() {
        setenv("TZ", "UTC", 1);
        tzset();
        overview.isGatewayThere = true;
        overview.settings = contract::Settings{true, true, true};
        overview.programs = std::vector<RunningProgram>{{20, 100, 0}, {80, 101, 0}};
        overview.served = {served(1, "lan0", contract::Role::internal, "192.0.2.1"),
                           served(2, "wan0", contract::Role::external, "198.51.100.1")};
        overview.mappings = {mapped("192.0.2.2", 80, "web", 3456)};
        contract::MappingRefusal refusal;
        refusal.time = 1767323045;
        refusal.requester = inet_addr("192.0.2.3");
        refusal.externalPort = 22;
        refusal.protocol = 6;
        refusal.code = 501;
        refusal.reason = "destination port 22 refused: the router itself uses it";
        refusal.count = 3;
        overview.refusals = {refusal};
    }
    void size(std::size_t width, std::size_t height) {
        terminal.isTerminal = true;
        terminal.isUnicode = true;
        terminal.width = width;
        terminal.height = height;
    }
    std::string text() const { return Terminal{}.render(layOut(overview, terminal)); }

    Overview overview;
    Terminal terminal;
};

TEST_F(OverviewLayout, TellsTheSettingsThatAreNotAsUsual) {
    overview.settings = contract::Settings{true, false, false};
    EXPECT_TRUE(
        text().starts_with("UPnP is on.\n"
                           "Clients may not disconnect an external interface (allow-disable-external=no)\n"
                           "Clients see no dummy mapping before all others (show-dummy-rule=no)\n"
                           "Discoverable on lan0 "))
        << text();
}

TEST_F(OverviewLayout, FitsAnUsualHomeOnAnUsualTerminal) {
    size(80, 24);
    EXPECT_EQ(text(),
              "UPnP is on.\n"
              "Discoverable on lan0 at http://192.0.2.1:2828/gateway.xml\n"
              "Clients see 198.51.100.1 (wan0)\n"
              "\n"
              "1 mapping for 1 host\n"
              "  PORT    LEADS TO        DESCRIPTION  PACKETS  TRAFFIC  SINCE\n"
              "  tcp 80  192.0.2.2:8080  web          34       3.4 kB   01-02 03:04\n"
              "\n"
              "Refused lately\n"
              "  LAST         HOST       PORT    TIMES  REASON\n"
              "  01-02 03:04  192.0.2.3  tcp 22  3      501: destination port 22 refused: the\n"
              "                                         router itself uses it\n"
              "\n"
              "Programs: routerd (100, root), upnpd (101, root), resolverd (when needed)\n"
              "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, IsShortenedOnANarrowTerminal) {
    size(40, 24);
    EXPECT_EQ(text(),
              "UPnP is on.\n"
              "Discoverable on lan0 at http://192.0.2.…\n"
              "Clients see 198.51.100.1 (wan0)\n"
              "\n"
              "1 mapping for 1 host\n"
              "  PORT    LEADS TO        TRAFFIC\n"
              "  tcp 80  192.0.2.2:8080  3.4 kB\n"
              "\n"
              "Refused lately\n"
              "  HOST       PORT    REASON\n"
              "  192.0.2.3  tcp 22  501: destination\n"
              "                     port 22 refused:\n"
              "                     the router itself\n"
              "                     uses it\n"
              "\n"
              "Programs: routerd (100, root), upnpd\n"
              "          (101, root), resolverd (when\n"
              "          needed)\n"
              "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, IsWholeOnAWideTerminalAndInAPipe) {
    overview.mappings[0].description = std::string(60, 'w');
    const std::string piped = text();
    EXPECT_NE(piped.find(std::string(60, 'w')), std::string::npos);
    EXPECT_NE(piped.find("501: destination port 22 refused: the router itself uses it\n"), std::string::npos);
    size(200, 24);
    EXPECT_EQ(text(), piped);
}

TEST_F(OverviewLayout, NeverIsWiderOrHigherThanTheTerminal) {
    for (int i = 0; i < 5; ++i) overview.refusals.push_back(overview.refusals[0]);
    overview.served[0].isDisabled = true;
    for (int port = 1; port <= 60; ++port)
        overview.mappings.push_back(mapped(port % 2 == 0 ? "192.0.2.2" : "192.0.2.3",
                                           static_cast<std::uint16_t>(port),
                                           "日本語の説明です日本語の説明です", 1));
    for (const std::size_t width : {60U, 80U, 132U, 200U})
        for (const std::size_t height : {18U, 24U, 50U, 100U}) {
            size(width, height);
            const std::vector<Line> lines = layOut(overview, terminal);
            EXPECT_LT(lines.size(), height);
            for (const Line& line : lines) {
                std::size_t used = 0;
                for (const Span& span : line) used += displayWidth(span.text);
                EXPECT_LE(used, width);
            }
        }
}

TEST_F(OverviewLayout, SaysWhatToDoInFull) {
    overview.served[0].isDisabled = true;
    size(40, 40);
    EXPECT_TRUE(
        text().starts_with("UPnP is on.\n"
                           "! lan0 is not served; to serve it: tkctl\n"
                           "  upnp interface set 1 disabled=no\n"))
        << text();
}

TEST_F(OverviewLayout, CutsTheRefusalsBeforeTheProblemsWhereRoomIsShort) {
    overview.served[0].isDisabled = true;
    for (int i = 0; i < 5; ++i) overview.refusals.push_back(overview.refusals[0]);
    size(60, 40);
    EXPECT_NE(text().find("uses it\n"), std::string::npos) << text();
    size(60, 18);
    EXPECT_EQ(text().find("uses it\n"), std::string::npos) << text();
    EXPECT_NE(text().find("\n  1 disabled=no\n"), std::string::npos) << text();
    size(60, 17);
    EXPECT_EQ(text().find("disabled=no\n"), std::string::npos) << text();
}

TEST_F(OverviewLayout, ALongDescriptionDoesNotFillAPipe) {
    overview.mappings[0].description = std::string(10000, 'w');
    EXPECT_LT(text().size(), 1000U);
    EXPECT_NE(text().find(std::string(60, 'w') + "...  "), std::string::npos);
}

TEST_F(OverviewLayout, GroupsManyMappingsByTheirHosts) {
    size(80, 24);
    overview.refusals.clear();
    overview.mappings.clear();
    for (std::uint16_t port = 1; port <= 30; ++port)
        overview.mappings.push_back(mapped(port <= 10 ? "192.0.2.2" : "192.0.2.3", port, "x", 1000));
    EXPECT_EQ(text(),
              "UPnP is on.\n"
              "Discoverable on lan0 at http://192.0.2.1:2828/gateway.xml\n"
              "Clients see 198.51.100.1 (wan0)\n"
              "\n"
              "30 mappings for 2 hosts; tkctl upnp mappings lists them\n"
              "  HOST       MAPPINGS  PACKETS  TRAFFIC\n"
              "  192.0.2.3  20        200      20 kB\n"
              "  192.0.2.2  10        100      10 kB\n"
              "\n"
              "Programs: routerd (100, root), upnpd (101, root), resolverd (when needed)\n"
              "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, TellsWhatIsUnusualInAMapping) {
    overview.refusals.clear();
    overview.served.push_back(served(3, "wan1", contract::Role::external, "203.0.113.1"));
    overview.mappings[0].enabled = false;
    overview.mappings[0].requestedBy = inet_addr("192.0.2.9");
    EXPECT_NE(
        text().find(
            "  ON    PORT    LEADS TO        DESCRIPTION                          PACKETS  TRAFFIC  SINCE\n"
            "  wan0  tcp 80  192.0.2.2:8080  (disabled) web (asked by 192.0.2.9)  34       3.4 kB   01-02 "
            "03:04\n"),
        std::string::npos)
        << text();
}

TEST_F(OverviewLayout, SaysWhatIsWrongRightAtTheTop) {
    overview.served[1].addresses.clear();
    overview.mappings.clear();
    overview.refusals.clear();
    EXPECT_EQ(text(),
              "UPnP is on.\n"
              "! wan0 (external) has no IPv4 address\n"
              "Discoverable on lan0 at http://192.0.2.1:2828/gateway.xml\n"
              "\n"
              "Nothing is mapped.\n"
              "\n"
              "Programs: routerd (100, root), upnpd (101, root), resolverd (when needed)\n"
              "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, SaysSoWhenTheDaemonIsNotThere) {
    Overview without;
    without.programs = std::vector<RunningProgram>{{20, 100, 0}};
    overview = without;
    EXPECT_EQ(
        text(),
        "UPnP is not served.\n"
        "! upnpd is not running: it is switched off, or failed; to start it: tkctl upnp set enabled=yes\n"
        "\n"
        "Programs: routerd (100, root), resolverd (when needed), upnpd (not running)\n"
        "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, SaysSoWhenTheDaemonDoesNotAnswer) {
    overview.settings.reset();
    overview.served.clear();
    overview.mappings.clear();
    overview.refusals.clear();
    overview.gatewayFailure = "upnpd does not answer: no answer";
    EXPECT_EQ(text(),
              "Nobody tells whether UPnP is on.\n"
              "! upnpd does not answer: no answer\n"
              "\n"
              "Programs: routerd (100, root), upnpd (101, root), resolverd (when needed)\n"
              "tkctl doctor looks closer\n");
}

TEST_F(OverviewLayout, SaysSoWhenTheRouterDoesNotAnswer) {
    overview = {};
    overview.routerFailure = "cannot reach routerd";
    EXPECT_EQ(text(),
              "routerd does not answer: nothing is known of the gateway.\n"
              "! cannot reach routerd\n");
}

TEST_F(OverviewLayout, NoTextFromTheNetworkReachesTheTerminal) {
    overview.mappings[0].description = "\x1b[2Jx\n";
    overview.refusals[0].reason = "\x1b[31m";
    EXPECT_EQ(text().find('\x1b'), std::string::npos);
    EXPECT_NE(text().find("\\x1b[2Jx\\x0a"), std::string::npos);
}

TEST_F(OverviewLayout, AHistoryStandsBesideItsMapping) {
    size(80, 24);
    overview.refusals.clear();
    TrafficHistory history;
    history.note({mapped("192.0.2.2", 80, "web", 3156)}, 0);
    history.note(overview.mappings, 1000);
    const std::string shown = Terminal{}.render(layOut(overview, terminal, &history));
    EXPECT_NE(shown.find("TRAFFIC  LAST MINUTE\n"), std::string::npos) << shown;
    EXPECT_NE(shown.find("3.4 kB                      ▂\n"), std::string::npos) << shown;
}

TEST(QuantityText, HasAFewDigits) {
    const std::pair<std::uint64_t, const char*> cases[] = {
        {0, "0 B"},         {999, "999 B"},      {1000, "1.0 kB"},       {9999, "9.9 kB"}, {10000, "10 kB"},
        {999999, "999 kB"}, {1000000, "1.0 MB"}, {12345678901, "12 GB"}, {~0ULL, "18 EB"},
    };
    for (const auto& [value, expected] : cases) EXPECT_EQ(quantityText(value, "B"), expected);
    EXPECT_EQ(quantityText(12, ""), "12");
    EXPECT_EQ(quantityText(3400, ""), "3.4 k");
}

}  // namespace
}  // namespace ctl
