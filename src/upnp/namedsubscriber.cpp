#include "upnp/namedsubscriber.h"

#include <utility>

#include "contract/programs.h"
#include "contract/resolver.h"
#include "tk/log.h"
#include "tk/names.h"
#include "upnp/gena.h"

namespace gateway {

namespace {

/// The address that the resolver gave. An error is logged; an address that comes with it is taken all the
/// same.
/// Byte order: network.
/// Errors: 0.
std::uint32_t resolvedAddress(const tk::message& end) {
    if (tk::isError(end)) tk::log("resolving failed: ", tk::getError(end));
    return end.get_be32(contract::resolvefield::address, 0);
}

}  // namespace

NamedSubscriber::NamedSubscriber(Service& service, HTTPClient& client, Callback named, std::uint32_t seconds)
    : service(service), client(client), callback(std::move(named)), seconds(seconds) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, {contract::program::resolver});
    request.insert_string(contract::resolvefield::name, callback.host);
    inquiry.start(request, contract::resolveName, tk::exchangeTimeout);
}

void NamedSubscriber::inquiryEnded(const tk::message& end) {
    const std::uint32_t address = resolvedAddress(end);
    if (address == 0) return client.answer(HTTPMessage(httpstatus::preconditionFailed));  // deletes this
    callback.address = address;
    client.answer(addSubscription(service, callback, seconds));  // deletes this
}

}  // namespace gateway
