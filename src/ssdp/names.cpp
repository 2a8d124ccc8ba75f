#include "ssdp/names.h"

#include "contract/ports.h"
#include "http/httpserver.h"
#include "net/convert.h"

namespace gateway {

namespace {

constexpr unsigned maxAgeSeconds = 3600;

}  // namespace

std::string ssdpHost() {
    return std::string(contract::ssdpGroup) + ":" + toString(unsigned{contract::ssdpPort});
}

std::string ssdpMaxAge() {
    return "max-age=" + toString(maxAgeSeconds);
}

std::string ssdpLocation(std::uint32_t address) {
    return baseUrl(address) + "/gateway.xml";
}

}  // namespace gateway
