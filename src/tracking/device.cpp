#include "tracking/device.h"

#include <arpa/inet.h>

#include <cassert>

#include "tracking/tracking.h"

namespace gateway {

bool NumericOrder::operator()(std::uint32_t left, std::uint32_t right) const {
    return ntohl(left) < ntohl(right);
}

Device::~Device() {
    assert(!isStarted());
}

std::uint32_t Device::id() const {
    return record.id;
}

std::uint32_t Device::index() const {
    return record.index;
}

std::string Device::name() const {
    return record.name;
}

std::string Device::displayName() const {
    return record.displayName.value_or("");
}

int Device::connectionStatus() const {
    if (disabled) return 3;
    return running ? 2 : 1;
}

void Device::readvertise() {
    tracking.readvertise(this);
}

}  // namespace gateway
