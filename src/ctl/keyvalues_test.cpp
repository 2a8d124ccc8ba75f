#include "ctl/keyvalues.h"

#include <gtest/gtest.h>

#include "ctl/failure.h"

namespace ctl {
namespace {

KeyValues parse(const std::vector<std::string>& arguments) {
    return KeyValues(arguments, {"enabled", "name"});
}

/// The reason of a refusal as misuse; empty when there was none.
template <typename Action>
std::string misuseOf(Action action) {
    try {
        action();
    } catch (const Failure& failure) {
        return failure.status == Status::misuse ? failure.what() : "refused, but not as misuse";
    }
    return {};
}

TEST(KeyValues, GivesTheValuesThatWereNamed) {
    const KeyValues settings = parse({"enabled=yes", "name=a=b"});
    EXPECT_EQ(settings.flag("enabled"), true);
    EXPECT_EQ(settings.text("name"), "a=b");
}

TEST(KeyValues, WhatWasNotNamedHasNoValue) {
    EXPECT_EQ(parse({}).flag("enabled"), std::nullopt);
    EXPECT_EQ(parse({"enabled=no"}).text("name"), std::nullopt);
}

TEST(KeyValues, AnEmptyTextIsAValue) {
    EXPECT_EQ(parse({"name="}).text("name"), "");
}

TEST(KeyValues, FlagsAreYesOrNo) {
    EXPECT_EQ(parse({"enabled=no"}).flag("enabled"), false);
    for (const char* argument : {"enabled=", "enabled=1", "enabled=true", "enabled=Yes", "enabled=yes "})
        EXPECT_NE(misuseOf([=] { (void)parse({argument}).flag("enabled"); }), "") << argument;
}

TEST(KeyValues, SaysWhichKeysThereAre) {
    EXPECT_EQ(misuseOf([] { parse({"enable=yes"}); }), "unknown key 'enable'; there are: enabled, name");
}

TEST(KeyValues, RefusesWhatIsNotASetting) {
    EXPECT_EQ(misuseOf([] { parse({"enabled"}); }), "'enabled': expected KEY=VALUE; keys: enabled, name");
    EXPECT_EQ(misuseOf([] { parse({"name=a", "name=b"}); }), "'name' is given twice");
}

}  // namespace
}  // namespace ctl
