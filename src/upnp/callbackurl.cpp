#include "upnp/callbackurl.h"

#include <algorithm>

#include "net/convert.h"

namespace gateway {

namespace {

constexpr std::string_view scheme = "http://";
constexpr std::uint16_t defaultPort = 80;
// What a text that is not an address reads as; also the broadcast address.
constexpr std::uint32_t noAddress = 0xFFFFFFFF;

bool hasControlCharacter(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char byte) {
        const auto code = static_cast<unsigned char>(byte);
        return code < 0x20 || code == 0x7F;
    });
}

}  // namespace

bool parseCallbackUrl(const std::string& url, Callback& out) {
    if (hasControlCharacter(url)) return false;  // it would end the NOTIFY's start line early
    if (slice(url, 0, scheme.size()) != scheme) return false;
    const std::string_view rest = slice(url, scheme.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return false;
    const std::string_view authority = slice(rest, 0, slash);
    const std::size_t colon = authority.find(':');
    out.host = slice(authority, 0, colon);
    out.address.reset();
    if (const std::uint32_t address = toAddress(out.host); address != noAddress) out.address = address;
    out.port = colon == std::string_view::npos
                   ? defaultPort
                   : static_cast<std::uint16_t>(toInt(std::string(slice(authority, colon + 1))));
    out.path = slice(rest, slash);
    return true;
}

}  // namespace gateway
