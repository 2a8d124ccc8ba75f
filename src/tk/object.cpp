#include "tk/object.h"

namespace tk {

void Object::getConfig(message&, std::uint32_t) const {}
void Object::setConfig(const message&, std::uint32_t) {}

}  // namespace tk
