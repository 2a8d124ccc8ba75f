#pragma once

#include <unistd.h>

#include "tk/fd.h"

namespace fuzz {

/// The number that the next descriptor gets. It is the same before and after what gives all of its own back.
inline int nextDescriptor() {
    return tk::Fd(::dup(STDERR_FILENO)).get();
}

}  // namespace fuzz
