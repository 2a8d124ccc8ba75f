// The URL that a subscriber wants its events sent to, against another reading of the same text; and whether its host is
// a name to ask for, against the grammar of names.
#include "upnp/callbackurl.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdlib>
#include <limits>
#include <string>

#include "fuzz/target.h"
#include "net/convert.h"
#include "resolver/hostname.h"

namespace {

using gateway::Callback;

bool isPlain(const std::string& url) {
    return std::none_of(url.begin(), url.end(),
                        [](char byte) { return (byte >= 0 && byte < 0x20) || byte == 0x7F; });
}

/// Reads the number at the start of a text as one of 32 bits with a sign, and keeps its low 16 bits.
std::uint16_t portOf(const std::string& text) {
    const long long number = std::strtoll(text.c_str(), nullptr, 10);
    return static_cast<std::uint16_t>(
        std::clamp<long long>(number, std::numeric_limits<int>::min(), std::numeric_limits<int>::max()));
}

/// Reads the URL by cutting it from its end: path, port, host. False when it has no path or is no such URL.
bool read(std::string url, Callback& out) {
    if (!isPlain(url) || url.rfind("http://", 0) != 0) return false;
    url.erase(0, 7);
    const std::size_t slash = url.find('/');
    if (slash == url.npos) return false;
    out.path = url.substr(slash);
    url.resize(slash);
    const std::size_t colon = url.find(':');
    out.port = colon == url.npos ? 80 : portOf(url.substr(colon + 1));
    out.host = url.substr(0, colon);
    in_addr address{};
    out.address.reset();
    if (::inet_aton(out.host.c_str(), &address) != 0 && address.s_addr != INADDR_BROADCAST)
        out.address = address.s_addr;
    return true;
}

bool areEqual(const Callback& one, const Callback& other) {
    return one.host == other.host && one.address == other.address && one.port == other.port &&
           one.path == other.path;
}

/// Looks for what a host name may not have, between dots on all its sides.
bool isName(std::string host) {
    if (host.ends_with('.')) host.pop_back();
    if (host.empty() || host.size() > 253) return false;
    if (host.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-.") !=
        host.npos)
        return false;
    const std::string dotted = '.' + host + '.';
    for (const char* wrong : {"..", ".-", "-."})
        if (dotted.find(wrong) != dotted.npos) return false;
    for (std::size_t dot = 0, next = 0; (next = dotted.find('.', dot + 1)) != dotted.npos; dot = next)
        if (next - dot - 1 > 63) return false;
    return host.find_first_not_of("0123456789", host.rfind('.') + 1) != host.npos;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string url(fuzz::text(data, size));
    const Callback before{"before", 1, 2, "/before"};
    Callback parsed = before;
    Callback expected = before;
    const bool accepted = gateway::parseCallbackUrl(url, parsed);
    fuzz::require(accepted == read(url, expected), "the same URLs are taken");
    fuzz::require(areEqual(parsed, expected), "the same parts, and none of a URL that is not taken");
    if (!accepted) return 0;
    fuzz::require(resolver::isHostName(parsed.host) == isName(parsed.host), "the same names are asked for");
    fuzz::require(gateway::toUpper(resolver::lowerCase(parsed.host)) == gateway::toUpper(parsed.host),
                  "only the case of a name changes");

    fuzz::require(!parsed.path.empty() && parsed.path.front() == '/', "a path begins with a slash");
    fuzz::require(isPlain(parsed.path) && isPlain(parsed.host), "no control character gets into a NOTIFY");
    const std::string host = parsed.address ? gateway::ipToString(*parsed.address) : parsed.host;
    Callback again;
    fuzz::require(
        gateway::parseCallbackUrl("http://" + host + ":" + std::to_string(parsed.port) + parsed.path, again),
        "its parts make a URL");
    again.host = parsed.host;
    fuzz::require(areEqual(again, parsed), "with the same parts");
    return 0;
}
