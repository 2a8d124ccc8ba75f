#pragma once

#include <ostream>
#include <string>

#include "ctl/session.h"

namespace ctl {

/// Whether upnpd, which may have to be started for it, is given time to answer.
enum class Wait { moment, start };

/// Asks upnpd for its settings, and returns the end of the request. It waits for 3 s; with Wait::start it then
/// tells `notices` what it waits for, and waits for up to 10 s in all.
[[nodiscard]] tk::message askSettings(Session& session, Wait wait, std::ostream& notices);

/// Why upnpd, which has not answered, did not, and what to do.
[[nodiscard]] std::string whySilent(Session& session);

}  // namespace ctl
