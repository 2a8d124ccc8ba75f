// What requests are answered with, and which service gets them.

#include "http/httpserver.h"

#include <arpa/inet.h>

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "http/testing/serverfixture.h"

namespace gateway {

namespace {

TEST_F(Server, DescribesTheRootForTheInterfacesAddressWhateverHostSays) {
    const std::string response = exchange("GET /gateway.xml HTTP/1.1\r\nHOST: 203.0.113.9\r\n\r\n");
    EXPECT_TRUE(response.starts_with("HTTP/1.1 200 OK\r\nCONTENT-TYPE: text/xml\r\nCONTENT-LENGTH: 7\r\n"));
    EXPECT_TRUE(response.ends_with("\r\n\r\n<root/>"));
    EXPECT_EQ(host.described, serverAddress);
}

TEST_F(Server, TakesADescriptionPathWithAQueryForAFile) {
    EXPECT_EQ(exchange("GET /gateway.xml?x HTTP/1.1\r\n\r\n"), "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST_F(Server, ClosesTheConnectionAfterOneResponse) {
    Client client(port);
    client.send("GET /unknown HTTP/1.1\r\n\r\nGET /unknown HTTP/1.1\r\n\r\n");
    loop.settle();
    EXPECT_EQ(client.received(), "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_TRUE(client.isClosed());
    EXPECT_FALSE(server.hasConnections(host.device));
    EXPECT_EQ(host.ended, 1);
}

TEST_F(Server, AnswersUnknownMethodsWith501AndALogLine) {
    EXPECT_EQ(exchange("HEAD /gateway.xml HTTP/1.1\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(exchange("get / HTTP/1.1\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(exchange("\r\n\r\n"), "HTTP/1.1 501 Not Implemented\r\n\r\n");
    EXPECT_EQ(log(), "what is this: 'HEAD'\nwhat is this: 'get'\nwhat is this: ''\n");
}

TEST_F(Server, LooksForThePathBeforeItChecksHost) {
    EXPECT_EQ(exchange("POST /upnp/control/other HTTP/1.1\r\nHOST: wrong\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(log(), "");
}

TEST_F(Server, RoutesEachMethodToItsOwnTable) {
    EXPECT_EQ(exchange("POST /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(service.called, "");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(service.called, "SUBSCRIBE");
    exchange("UNSUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1:2828\r\n\r\n");
    EXPECT_EQ(service.called, "UNSUBSCRIBE");
    exchange("POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1:2828\r\nCONTENT-LENGTH: 3\r\n\r\nabc");
    EXPECT_EQ(service.called, "POST");
    EXPECT_EQ(service.body, "abc");
}

struct HostCase {
    const char* name;
    const char* header;
    const char* logged;
};

class HostCheck : public Server, public testing::WithParamInterface<HostCase> {};

TEST_P(HostCheck, RefusesEveryOtherHostForEachMethodOnAKnownPath) {
    const std::pair<std::string, std::string> routes[] = {{"POST", "/upnp/control/osinfo"},
                                                          {"SUBSCRIBE", "/upnp/event/osinfo"},
                                                          {"UNSUBSCRIBE", "/upnp/event/osinfo"}};
    std::string logged;
    for (const auto& [method, path] : routes) {
        const std::string rest = std::string(" HTTP/1.1\r\n") + GetParam().header + "\r\n";
        EXPECT_EQ(exchange(method + " " + path + rest), "HTTP/1.1 400 Bad Request\r\n\r\n");
        EXPECT_EQ(exchange(method + " /unknown" + rest), "HTTP/1.1 404 Not Found\r\n\r\n");
        logged += method + ": host mismatch '" + GetParam().logged + "'\n";
    }
    EXPECT_EQ(service.called, "");
    EXPECT_EQ(log(), logged);
}

INSTANTIATE_TEST_SUITE_P(Hosts, HostCheck,
                         testing::Values(HostCase{"Missing", "", ""}, HostCase{"Empty", "HOST: \r\n", ""},
                                         HostCase{"AnotherPort", "HOST: 192.0.2.1:80\r\n", "192.0.2.1:80"},
                                         HostCase{"AName", "HOST: gateway\r\n", "gateway"},
                                         HostCase{"AnotherInterface", "HOST: 192.0.2.9\r\n", "192.0.2.9"},
                                         HostCase{"TrailingBlank", "HOST: 192.0.2.1 \r\n", "192.0.2.1 "}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Server, RemovesOnlyTheFirstEntryOfAServiceThatIsRegisteredTwice) {
    server.registerService(&service, "/upnp/event/second", "/upnp/control/second");
    server.removeService(&service);
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("POST /upnp/control/osinfo HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
    EXPECT_EQ(exchange("SUBSCRIBE /upnp/event/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    EXPECT_EQ(exchange("POST /upnp/control/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 200 OK\r\n\r\n");
    server.removeService(&service);
    server.removeService(&service);  // absent: no error
    EXPECT_EQ(exchange("POST /upnp/control/second HTTP/1.1\r\nHOST: 192.0.2.1\r\n\r\n"),
              "HTTP/1.1 404 Not Found\r\n\r\n");
}

TEST(BaseUrl, NamesTheAddressAndThePort) {
    EXPECT_EQ(baseUrl(inet_addr("192.0.2.1")), "http://192.0.2.1:2828");
    EXPECT_EQ(baseUrl(0), "http://0.0.0.0:2828");
}

}  // namespace

}  // namespace gateway
