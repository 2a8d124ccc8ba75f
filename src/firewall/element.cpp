#include "firewall/element.h"

#include <netinet/in.h>

#include "links/prefix.h"

namespace router {

std::string destinationText(const NatElement& element) {
    return (element.protocol == IPPROTO_TCP ? "tcp " : "udp ") + addressText(element.destination) + ":" +
           std::to_string(element.port);
}

}  // namespace router
