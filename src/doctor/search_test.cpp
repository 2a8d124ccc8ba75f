#include "doctor/search.h"

#include <gtest/gtest.h>

namespace doctor {
namespace {

constexpr const char* answer =
    "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=120\r\nst: "
    "urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n"
    "Server:  Box/1.0 UPnP/1.0\r\nLOCATION: http://192.0.2.9/\r\n\r\n";

TEST(SearchAnswer, TellsWhatTheGatewayCallsItself) {
    EXPECT_EQ(serverIn(answer), "Box/1.0 UPnP/1.0");
}

TEST(SearchAnswer, MayLackTheName) {
    EXPECT_EQ(serverIn("HTTP/1.1 200 OK\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:2\r\n\r\n"),
              "");
    EXPECT_EQ(
        serverIn("HTTP/1.1 200 OK\r\nST:urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\nSERVER:\r\n"),
        "");
}

TEST(SearchAnswer, GivesNoMoreThan200BytesOfTheName) {
    const std::string beginning =
        "HTTP/1.1 200 OK\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\nSERVER: ";
    EXPECT_EQ(serverIn(beginning + std::string(201, 'x') + "\r\n"), std::string(200, 'x'));
}

TEST(SearchAnswer, OfLinesWithoutCarriageReturnsDoesNotCount) {
    EXPECT_EQ(
        serverIn("HTTP/1.1 200 OK\nST:urn:schemas-upnp-org:device:InternetGatewayDevice:1\nSERVER: x\n\n"),
        std::nullopt);
}

TEST(SearchAnswer, OfAnythingElseDoesNotCount) {
    for (const char* text :
         {"", "HTTP/1.1 200 OK\r\n\r\n", "HTTP/1.1 200 OK\r\nST: upnp:rootdevice\r\nSERVER: x\r\n\r\n",
          "NOTIFY * HTTP/1.1\r\nST: urn:schemas-upnp-org:device:InternetGatewayDevice:1\r\n\r\n"})
        EXPECT_EQ(serverIn(text), std::nullopt) << text;
}

TEST(SearchAnswer, IsReadAtAnyLength) {
    const std::string_view whole = answer;
    for (std::size_t cut = 0; cut <= whole.size(); ++cut) {
        const auto server = serverIn(whole.substr(0, cut));
        if (server) {
            EXPECT_TRUE(std::string_view("Box/1.0 UPnP/1.0").starts_with(*server)) << "cut at byte " << cut;
        }
    }
}

}  // namespace
}  // namespace doctor
