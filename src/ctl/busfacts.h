#pragma once

#include "ctl/context.h"
#include "doctor/facts.h"

namespace ctl {

/// Asks the router's programs how things are. A program that does not answer is noted as such, and what only
/// it could tell is left empty.
[[nodiscard]] doctor::BusFacts readBusFacts(Context& context);

}  // namespace ctl
