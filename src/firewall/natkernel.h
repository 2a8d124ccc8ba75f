#pragma once

#include <span>
#include <vector>

#include "firewall/element.h"
#include "tk/status.h"

namespace router {

/// Whose rules are in the kernel. It is asked when they have to be put there anew.
class ElementOwner {
public:
    virtual ~ElementOwner() = default;
    /// The elements of all enabled rules: what was committed, less what was taken out.
    [[nodiscard]] virtual std::vector<NatElement> elements() const = 0;
};

/// Where enabled rules take effect. Replaced by a fake in tests.
class NatKernel {
public:
    virtual ~NatKernel() = default;
    /// Takes elements out and puts others in, all or nothing; a key may be in both lists with another target.
    /// The owner changes what it tells after a success, and before anything else.
    /// Errors: the kernel's text; nothing has changed then, or it is undone as soon as that is possible.
    virtual tk::Status commit(std::span<const NatElement> removed, std::span<const NatElement> added) = 0;
};

}  // namespace router
