#include "upnp/callbackurl.h"

#include <algorithm>

#include "net/convert.h"
#include "net/text.h"
#include "tk/log.h"
#include "tk/looper.h"

namespace {

constexpr std::string_view scheme = "http://";
constexpr std::uint16_t defaultPort = 80;
constexpr std::uint32_t noAddress =
    0xFFFFFFFF;  // what an address does not read as; also the broadcast address

constexpr std::uint32_t resolverField = 3;  // the name in the request
constexpr std::uint32_t resolvedField = 4;  // the address in its reply
constexpr std::uint32_t resolveCommand = 3;

bool hasControlCharacter(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](char byte) {
        const auto code = static_cast<unsigned char>(byte);
        return code < 0x20 || code == 0x7F;
    });
}

/// Asks the resolver. Byte order: network. Errors: 0.
std::uint32_t resolve(const std::string& host) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, {tk::program::resolver});
    request.insert_string(resolverField, host);
    const tk::message reply = tk::getLooper()->exchangeCmd(request, resolveCommand, tk::exchangeTimeout);
    if (tk::isError(reply)) tk::log("resolving failed: ", tk::getError(reply));
    return reply.get_be32(resolvedField, 0);
}

}  // namespace

bool parseCallbackUrl(const std::string& url, std::uint32_t& address, std::uint16_t& port,
                      std::string& path) {
    if (hasControlCharacter(url)) return false;  // it would end the NOTIFY's start line early
    if (slice(url, 0, scheme.size()) != scheme) return false;
    const std::string_view rest = slice(url, scheme.size());
    const std::size_t slash = rest.find('/');
    if (slash == std::string_view::npos) return false;
    const std::string_view authority = slice(rest, 0, slash);
    const std::size_t colon = authority.find(':');
    const std::string host(slice(authority, 0, colon));

    std::uint32_t hostAddress = toAddress(host);
    if (hostAddress == noAddress) {
        hostAddress = resolve(host);
        if (hostAddress == 0) return false;
    }
    address = hostAddress;
    port = colon == std::string_view::npos
               ? defaultPort
               : static_cast<std::uint16_t>(toInt(std::string(slice(authority, colon + 1))));
    path = slice(rest, slash);
    return true;
}
