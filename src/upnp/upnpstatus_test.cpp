#include "upnp/upnpstatus.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

TEST(UPNPStatus, EveryCodeHasItsDescription) {
    struct Case {
        UPNPStatus code;
        const char* description;
    };
    constexpr Case cases[] = {
        {401, "Invalid Action"},
        {402, "Invalid Args"},
        {403, "Out of Sync"},
        {404, "Invalid Var"},
        {501, "Action Failed"},
        {713, "SpecifiedArrayIndexInvalid"},
        {714, "NoSuchEntryInArray"},
        {716, "WildcardNotPermittedInExtPort"},
        {718, "ConflictInMappingEntry"},
        {725, "OnlyPermanentLeasesSupported"},
        {726, "RemoteHostOnlySupportsWildcard"},
    };
    for (const Case& row : cases) EXPECT_STREQ(errorDescription(row.code), row.description);
}

TEST(UPNPStatus, OtherCodesHaveNone) {
    for (const UPNPStatus code : {600, 0, -1, 715}) EXPECT_STREQ(errorDescription(code), "");
}

}  // namespace

}  // namespace gateway
