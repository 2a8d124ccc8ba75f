#include "http/baseurl.h"

#include "contract/ports.h"
#include "net/convert.h"

std::string baseUrl(std::uint32_t address) {
    return "http://" + ipToString(address) + ":" + toString(unsigned{contract::httpPort});
}
