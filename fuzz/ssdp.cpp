// A datagram through the whole read path of discovery, from the socket to the answers: exactly the searches
// are answered, with the entries that they ask for, and nobody but the asker hears of it. Two hosts ask in
// turn, by whether the datagram's length is odd.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "fuzz/target.h"
#include "net/sockets.h"
#include "ssdp/discovery.h"
#include "tk/log.h"
#include "tk/runner.h"
#include "tk/testing/privatenetwork.h"

namespace {

using Headers = std::map<std::string, std::string>;

constexpr std::size_t datagramLimit = 4096;  // what is read of a datagram

const gateway::AdvertTargets& tree() {
    static const gateway::AdvertTargets targets = {
        {"upnp:rootdevice", "uuid:R::upnp:rootdevice"},
        {"uuid:R", "uuid:R"},
        {"uuid:W1", "uuid:W1"},
        {"urn:schemas-upnp-org:device:InternetGatewayDevice:1",
         "uuid:R::urn:schemas-upnp-org:device:InternetGatewayDevice:1"},
        {"urn:schemas-upnp-org:service:WANIPConnection:1",
         "uuid:W1::urn:schemas-upnp-org:service:WANIPConnection:1"},
        {"urn:schemas-upnp-org:service:WANIPConnection:1",
         "uuid:W2::urn:schemas-upnp-org:service:WANIPConnection:1"},
    };
    return targets;
}

class OneInterface final : public gateway::SSDPHost {
public:
    gateway::SSDPInterface findInterface(int socket) override {
        ++lookups;
        return {socket, ::inet_addr("192.0.2.1"), "lo"};
    }
    int lookups = 0;
};

/// A socket on the loopback.
struct Host {
    explicit Host(const char* text) : socket(gateway::openUdpSocket("lo")) {
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = ::inet_addr(text);
        socklen_t length = sizeof address;
        fuzz::require(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                          ::getsockname(socket.get(), reinterpret_cast<sockaddr*>(&address), &length) == 0,
                      "a host has an address");
    }
    std::vector<std::string> received() const {
        std::vector<std::string> texts;
        char bytes[datagramLimit];
        for (;;) {
            const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
            if (length < 0) return texts;
            texts.emplace_back(bytes, static_cast<std::size_t>(length));
        }
    }
    tk::Fd socket;
    sockaddr_in address{};
};

struct World {
    World() { discovery.setTargets(tree()); }
    OneInterface host;
    gateway::Discovery discovery{host};
    Host gateway{"127.0.0.1"}, one{"127.0.0.2"}, other{"127.0.0.3"};
};

World& world() {
    static const bool isApart = tk::testing::enterPrivateNetwork();
    fuzz::require(isApart, "needs root, for a network of its own");
    static World instance;
    return instance;
}

/// Takes a line off the text, up to its CR and the byte after that. None when no line ends.
std::optional<std::string_view> takeLine(std::string_view& text) {
    const std::size_t end = text.find('\r');
    if (end == text.npos) return {};
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(std::min(end + 2, text.size()));
    return line;
}

/// The headers of a datagram, by their names in upper case, as far as they can be read; the first of a name
/// counts.
Headers headersOf(std::string_view text) {
    Headers headers;
    for (auto line = takeLine(text); line && !line->empty(); line = takeLine(text)) {
        const std::size_t colon = line->find(':');
        if (colon == line->npos) break;
        std::string name(line->substr(0, colon));
        for (char& byte : name)
            if (byte >= 'a' && byte <= 'z') byte = static_cast<char>(byte - 32);
        std::string_view value = line->substr(colon + 1);
        while (!value.empty() && value.front() == ' ') value.remove_prefix(1);
        headers.emplace(name, value);
    }
    return headers;
}

/// What the datagram searches for; none when it is not a search.
std::optional<std::string> wanted(std::string_view text) {
    if (takeLine(text) != "M-SEARCH * HTTP/1.1") return {};
    Headers headers = headersOf(text);
    if (headers["HOST"] != "239.255.255.250:1900" || headers["MAN"] != "\"ssdp:discover\"") return {};
    if (!headers.contains("MX") || !headers.contains("ST")) return {};
    return headers["ST"];
}

std::vector<std::string> answersTo(const std::string& type) {
    std::vector<std::string> answers;
    for (const auto& [st, usn] : tree())
        if (type == "ssdp:all" || type == st)
            answers.push_back(
                "HTTP/1.1 200 OK\r\nCACHE-CONTROL: max-age=3600\r\nEXT: \r\n"
                "LOCATION: http://192.0.2.1:2828/gateway.xml\r\nSERVER: " +
                gateway::serverString + "\r\nST: " + st + "\r\nUSN: " + usn + "\r\n\r\n");
    return answers;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    World& lan = world();
    const tk::LogBatch quiet;
    const Host& asker = size % 2 == 0 ? lan.one : lan.other;
    const Host& bystander = size % 2 == 0 ? lan.other : lan.one;
    const sockaddr_in& to = lan.gateway.address;
    if (::sendto(asker.socket.get(), data, size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to) < 0) {
        fuzz::require(errno == EMSGSIZE, "what is no longer than a datagram is sent");
        return 0;
    }
    const int next = fuzz::nextDescriptor();
    lan.host.lookups = 0;
    lan.discovery.ssdpRead(lan.gateway.socket.get(), tk::readable);

    const auto search = wanted(fuzz::text(data, std::min(size, datagramLimit)));
    fuzz::require(asker.received() == (search ? answersTo(*search) : std::vector<std::string>()),
                  "a search gets the entries that it asks for, and nothing else gets an answer");
    fuzz::require(bystander.received().empty(), "nobody else is sent anything");
    fuzz::require(lan.host.lookups == (search ? 1 : 0), "only a search is looked at further");
    fuzz::require(fuzz::nextDescriptor() == next, "the socket of the answers is closed");
    return 0;
}
