// The adverts of discovery.h, which are multicast unasked.

#include "ssdp/discovery.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include "contract/ports.h"
#include "http/httpmessage.h"
#include "net/convert.h"
#include "net/sockets.h"
#include "ssdp/names.h"
#include "tk/log.h"

namespace gateway {

namespace {

sockaddr_in groupAddress() {
    sockaddr_in group{};
    group.sin_family = AF_INET;
    group.sin_port = htons(contract::ssdpPort);
    group.sin_addr.s_addr = toAddress(contract::ssdpGroup);
    return group;
}

HTTPMessage commonPart(std::uint32_t address, bool byebye) {
    HTTPMessage advert(200);
    advert.title = "NOTIFY * HTTP/1.1";
    advert.add("HOST", ssdpHost());
    if (byebye) return advert;
    advert.add("CACHE-CONTROL", ssdpMaxAge());
    advert.add("LOCATION", ssdpLocation(address));
    return advert;
}

}  // namespace

void sendAdverts(const SSDPInterface& interface, const AdvertTargets& table, bool byebye) {
    tk::log("sendAdverts");
    (void)tk::flushLog();
    const sockaddr_in group = groupAddress();
    const HTTPMessage common = commonPart(interface.address, byebye);
    for (const auto& [type, name] : table) {
        HTTPMessage advert = common;
        advert.add("NT", type);
        advert.add("NTS", byebye ? "ssdp:byebye" : "ssdp:alive");
        if (!byebye) advert.add("SERVER", serverString);
        advert.add("USN", name);
        const std::string text = advert.toString();
        const ssize_t sent = ::sendto(interface.socket, text.data(), text.size(), MSG_DONTWAIT,
                                      reinterpret_cast<const sockaddr*>(&group), sizeof group);
        if (sent != static_cast<ssize_t>(text.size())) tk::log("advert sendto failed: ", tk::errorText());
    }
}

}  // namespace gateway
