#include "tracking/device.h"

#include <arpa/inet.h>

#include <cassert>

#include "contract/interfaces.h"
#include "tk/names.h"
#include "tracking/tracking.h"

bool NumericOrder::operator()(std::uint32_t left, std::uint32_t right) const {
    return ntohl(left) < ntohl(right);
}

Device::~Device() {
    assert(!isStarted());
}

std::uint32_t Device::id() const {
    return record.get_u32(tk::field::objectId);
}

std::uint32_t Device::index() const {
    return record.get_u32(contract::interfacefield::index);
}

std::string Device::name() const {
    return record.get_string(contract::interfacefield::name);
}

std::string Device::displayName() const {
    return record.get_string(contract::interfacefield::displayName);
}

int Device::connectionStatus() const {
    if (disabled) return 3;
    return running ? 2 : 1;
}

void Device::readvertise() {
    tracking.readvertise(this);
}
