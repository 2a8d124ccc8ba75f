#include "ssdp/discovery.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <gtest/gtest.h>

#include "net/sockets.h"
#include "ssdp/testing/multicastlistener.h"
#include "tk/fd.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace gateway {

namespace {

const AdvertTargets table = {
    {"upnp:rootdevice", "uuid:R::upnp:rootdevice"},
    {"uuid:R", "uuid:R"},
    {"urn:schemas-upnp-org:service:B:1", "uuid:W1::urn:schemas-upnp-org:service:B:1"},
    {"urn:schemas-upnp-org:service:B:1", "uuid:W2::urn:schemas-upnp-org:service:B:1"},
};

class FakeHost final : public SSDPHost {
public:
    SSDPInterface findInterface(int socket) override { return {socket, inet_addr(address), deviceName}; }

    const char* address = "192.0.2.1";
    std::string deviceName = "lo";
};

std::string answer(const std::string& st, const std::string& usn, const std::string& address = "192.0.2.1") {
    return "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=3600\r\nEXT: \r\nLOCATION: http://" + address +
           ":2828/gateway.xml\r\nSERVER: " + serverString + "\r\nST: " + st + "\r\nUSN: " + usn + "\r\n\r\n";
}

std::string search(const std::string& st) {
    return "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 3\r\nST: " +
           st + "\r\n\r\n";
}

class Search : public testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
        server.reset(openUdpSocket("lo"));
        client.reset(openUdpSocket("lo"));
        bindToLoopback(server, serverAddress);
        bindToLoopback(client, clientAddress);
        discovery.setTargets(table);
    }
    static void bindToLoopback(const tk::Fd& socket, sockaddr_in& address) {
        address = {};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        socklen_t length = sizeof address;
        ASSERT_EQ(::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length), 0);
    }
    /// Sends one datagram to discovery, and returns the answers.
    std::vector<std::string> ask(const std::string& datagram) {
        EXPECT_EQ(::sendto(client.get(), datagram.data(), datagram.size(), 0,
                           reinterpret_cast<sockaddr*>(&serverAddress), sizeof serverAddress),
                  static_cast<ssize_t>(datagram.size()));
        discovery.ssdpRead(server.get(), tk::readable);
        std::vector<std::string> answers;
        char bytes[4096];
        sockaddr_in from{};
        socklen_t fromLength = sizeof from;
        for (;;) {
            const ssize_t length = ::recvfrom(client.get(), bytes, sizeof bytes, MSG_DONTWAIT,
                                              reinterpret_cast<sockaddr*>(&from), &fromLength);
            if (length < 0) return answers;
            EXPECT_NE(from.sin_port, serverAddress.sin_port);  // from a port of its own
            answers.emplace_back(bytes, static_cast<std::size_t>(length));
        }
    }

    tk::testing::TestLoop loop;
    FakeHost host;
    Discovery discovery{host};
    tk::Fd server, client;
    sockaddr_in serverAddress{}, clientAddress{};
};

TEST_F(Search, ForAllAnswersEachEntryWithItsOwnTypeInTableOrder) {
    EXPECT_EQ(ask(search("ssdp:all")),
              (std::vector<std::string>{
                  answer("upnp:rootdevice", "uuid:R::upnp:rootdevice"),
                  answer("urn:schemas-upnp-org:service:B:1", "uuid:W1::urn:schemas-upnp-org:service:B:1"),
                  answer("urn:schemas-upnp-org:service:B:1", "uuid:W2::urn:schemas-upnp-org:service:B:1"),
                  answer("uuid:R", "uuid:R"),
              }));
}

TEST_F(Search, ForOneTypeAnswersExactlyItsEntries) {
    EXPECT_EQ(ask(search("upnp:rootdevice")),
              std::vector<std::string>{answer("upnp:rootdevice", "uuid:R::upnp:rootdevice")});
    EXPECT_EQ(ask(search("urn:schemas-upnp-org:service:B:1")).size(), 2u);
}

TEST_F(Search, IsAnsweredWithTheAddressOfTheInterfaceThatItCameFrom) {
    for (const char* address : {"192.0.2.1", "192.0.2.129", "192.0.2.1"}) {
        host.address = address;
        EXPECT_EQ(ask(search("uuid:R")), std::vector<std::string>{answer("uuid:R", "uuid:R", address)});
    }
}

TEST_F(Search, ForAnUnknownTypeAnswersNothing) {
    EXPECT_TRUE(ask(search("urn:schemas-upnp-org:service:C:1")).empty());
    EXPECT_TRUE(ask(search("UPNP:rootdevice")).empty());  // types match exactly
}

TEST_F(Search, AcceptsHeaderNamesInLowerCaseAndAnUnfinishedMessage) {
    EXPECT_EQ(ask("M-SEARCH * HTTP/1.1\r\nhost: 239.255.255.250:1900\r\nman: \"ssdp:discover\"\r\nmx: 3\r\n"
                  "st: uuid:R\r\n\r\n")
                  .size(),
              1u);
    EXPECT_EQ(ask("M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX:\r\n"
                  "ST: uuid:R\r\n")
                  .size(),
              1u);
}

struct Dropped {
    const char* name;
    const char* startAndHost;
    const char* rest;
};

class Drop : public Search, public testing::WithParamInterface<Dropped> {};

TEST_P(Drop, AnswersAndLogsNothing) {
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ask(std::string(GetParam().startAndHost) + GetParam().rest).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

constexpr const char* goodStart = "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n";
constexpr const char* goodRest = "MAN: \"ssdp:discover\"\r\nMX: 3\r\nST: ssdp:all\r\n\r\n";
constexpr Dropped dropped[] = {
    {"AnotherMethod", "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\n", goodRest},
    {"AnotherProtocol", "M-SEARCH * HTTP/1.0\r\nHOST: 239.255.255.250:1900\r\n", goodRest},
    {"NoHost", "M-SEARCH * HTTP/1.1\r\n", goodRest},
    {"HostWithoutPort", "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250\r\n", goodRest},
    {"HostWithBlankBehind", "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900 \r\n", goodRest},
    {"ManWithoutQuotes", goodStart, "MAN: ssdp:discover\r\nMX: 3\r\nST: ssdp:all\r\n\r\n"},
    {"NoMan", goodStart, "MX: 3\r\nST: ssdp:all\r\n\r\n"},
    {"NoMx", goodStart, "MAN: \"ssdp:discover\"\r\nST: ssdp:all\r\n\r\n"},
    {"NoSt", goodStart, "MAN: \"ssdp:discover\"\r\nMX: 3\r\n\r\n"},
    {"HeadersBehindALineWithoutColon", "M-SEARCH * HTTP/1.1\r\nnonsense\r\nHOST: 239.255.255.250:1900\r\n",
     goodRest},
    {"Garbage", "\x01\x02\x03", ""},
};

INSTANTIATE_TEST_SUITE_P(Datagrams, Drop, testing::ValuesIn(dropped),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_F(Search, LogsAReadThatFailsAndAnEmptyDatagram) {
    testing::internal::CaptureStdout();
    discovery.ssdpRead(server.get(), tk::readable);
    EXPECT_TRUE(ask("").empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "search recvfrom failed\nsearch recvfrom failed\n");
}

TEST_F(Search, OpensAResponderForEachSearchEvenWhenNothingMatches) {
    host.deviceName = "nosuchif";
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ask(search("urn:unknown")).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "udp setsockopt SO_BINDTODEVICE: No such device\n");
}

TEST_F(Search, LogsEachAnswerThatCannotBeSentAndGoesOn) {
    host.deviceName = "nosuchif";
    testing::internal::CaptureStdout();
    EXPECT_TRUE(ask(search("urn:schemas-upnp-org:service:B:1")).empty());
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "udp setsockopt SO_BINDTODEVICE: No such device\nsearch sendto failed\nsearch sendto failed\n");
}

class Advert : public testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
        listener = std::make_unique<MulticastListener>();
        socket.reset(openSsdpSocket("lo", 1, htonl(INADDR_LOOPBACK)));
        ASSERT_TRUE(socket.isOpen());
        testing::internal::CaptureStdout();
        captured = true;
    }
    void TearDown() override {
        if (captured) testing::internal::GetCapturedStdout();
    }
    std::string takeLog() {
        captured = false;
        return testing::internal::GetCapturedStdout();
    }
    SSDPInterface interface() const { return {socket.get(), inet_addr("192.0.2.1"), "lo"}; }

    std::unique_ptr<MulticastListener> listener;
    tk::Fd socket;
    bool captured = false;
};

const AdvertTargets two = {{"upnp:rootdevice", "uuid:R::upnp:rootdevice"}, {"uuid:R", "uuid:R"}};

TEST_F(Advert, AliveIsOneDatagramAnEntryInTableOrder) {
    sendAdverts(interface(), two, false);
    const std::string head =
        "NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nCACHE-CONTROL: max-age=3600\r\n"
        "LOCATION: http://192.0.2.1:2828/gateway.xml\r\n";
    const std::string server = "NTS: ssdp:alive\r\nSERVER: " + serverString + "\r\n";
    EXPECT_EQ(listener->texts(),
              (std::vector<std::string>{
                  head + "NT: upnp:rootdevice\r\n" + server + "USN: uuid:R::upnp:rootdevice\r\n\r\n",
                  head + "NT: uuid:R\r\n" + server + "USN: uuid:R\r\n\r\n"}));
    EXPECT_EQ(takeLog(), "sendAdverts\n");
}

TEST_F(Advert, ByebyeCarriesNeitherLifetimeNorLocationNorServer) {
    sendAdverts(interface(), {{"uuid:R", "uuid:R"}}, true);
    EXPECT_EQ(listener->texts(),
              std::vector<std::string>{"NOTIFY * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nNT: uuid:R\r\n"
                                       "NTS: ssdp:byebye\r\nUSN: uuid:R\r\n\r\n"});
}

TEST_F(Advert, LeavesFromPort1900WithTtl4) {
    sendAdverts(interface(), {{"uuid:R", "uuid:R"}}, false);
    const auto heard = listener->take();
    ASSERT_EQ(heard.size(), 1u);
    EXPECT_EQ(heard[0].ttl, 4);
    EXPECT_EQ(heard[0].sourcePort, 1900);
}

TEST_F(Advert, LogsEachSendThatFailsAndGoesOn) {
    sendAdverts({-1, inet_addr("192.0.2.1"), "lo"}, two, false);
    EXPECT_EQ(takeLog(),
              "sendAdverts\nadvert sendto failed: Bad file descriptor\nadvert sendto failed: Bad file "
              "descriptor\n");
}

}  // namespace

}  // namespace gateway
