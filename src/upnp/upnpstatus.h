#pragma once

#include <cstdint>

namespace gateway {

/// How an action ended: 0, or a UPnP error code that the client gets in a SOAP fault. Codes other than those
/// below may be sent too; they have no description.
using UPNPStatus = std::int32_t;

namespace upnpstatus {
constexpr UPNPStatus ok = 0;
constexpr UPNPStatus invalidAction = 401;
constexpr UPNPStatus invalidArgs = 402;
constexpr UPNPStatus outOfSync = 403;
constexpr UPNPStatus invalidVar = 404;
constexpr UPNPStatus actionFailed = 501;
constexpr UPNPStatus specifiedArrayIndexInvalid = 713;
constexpr UPNPStatus noSuchEntryInArray = 714;
constexpr UPNPStatus wildcardNotPermittedInExtPort = 716;
constexpr UPNPStatus conflictInMappingEntry = 718;
constexpr UPNPStatus onlyPermanentLeasesSupported = 725;
constexpr UPNPStatus remoteHostOnlySupportsWildcard = 726;
}  // namespace upnpstatus

/// The description of a code in a fault; empty for a code not listed above.
const char* errorDescription(UPNPStatus code);

}  // namespace gateway
