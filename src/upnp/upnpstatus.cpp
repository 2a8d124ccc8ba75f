#include "upnp/upnpstatus.h"

namespace gateway {

const char* errorDescription(UPNPStatus code) {
    switch (code) {
        case upnpstatus::invalidAction:
            return "Invalid Action";
        case upnpstatus::invalidArgs:
            return "Invalid Args";
        case upnpstatus::outOfSync:
            return "Out of Sync";
        case upnpstatus::invalidVar:
            return "Invalid Var";
        case upnpstatus::actionFailed:
            return "Action Failed";
        case upnpstatus::specifiedArrayIndexInvalid:
            return "SpecifiedArrayIndexInvalid";
        case upnpstatus::noSuchEntryInArray:
            return "NoSuchEntryInArray";
        case upnpstatus::wildcardNotPermittedInExtPort:
            return "WildcardNotPermittedInExtPort";
        case upnpstatus::conflictInMappingEntry:
            return "ConflictInMappingEntry";
        case upnpstatus::onlyPermanentLeasesSupported:
            return "OnlyPermanentLeasesSupported";
        case upnpstatus::remoteHostOnlySupportsWildcard:
            return "RemoteHostOnlySupportsWildcard";
        default:
            return "";
    }
}

}  // namespace gateway
