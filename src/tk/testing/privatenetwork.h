#pragma once

namespace tk::testing {

/// Moves the process into a network namespace of its own, with a loopback that is up, so that nothing it
/// sends leaves it. Further calls change nothing. False when that is not permitted: without root.
bool enterPrivateNetwork();

}  // namespace tk::testing
