#pragma once

#include "ctl/context.h"
#include "ctl/session.h"
#include "doctor/facts.h"

namespace ctl {

/// Asks the router's programs how things are. A program that does not answer is noted as such, and what only
/// it could tell is left empty.
[[nodiscard]] doctor::BusFacts readBusFacts(Session& session);
/// The same of the bus that the context names, which is perhaps not to be reached.
[[nodiscard]] doctor::BusFacts readBusFacts(Context& context);

}  // namespace ctl
