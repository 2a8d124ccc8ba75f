#pragma once

#include <span>
#include <string>

#include "firewall/element.h"

namespace router {

/// Where enabled rules take effect. Replaced by a fake in tests.
class NatKernel {
public:
    virtual ~NatKernel() = default;
    /// Takes elements out and puts others in, all or nothing; an element may be in both lists with another
    /// target. Errors: false, with the kernel's text in `reason`; nothing has changed then, or it is undone
    /// as soon as that is possible.
    [[nodiscard]] virtual bool commit(std::span<const NatElement> removed, std::span<const NatElement> added,
                                      std::string& reason) = 0;
};

}  // namespace router
