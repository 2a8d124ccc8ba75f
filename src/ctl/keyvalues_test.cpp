#include "ctl/keyvalues.h"

#include <gtest/gtest.h>

#include "ctl/failure.h"

namespace ctl {
namespace {

Settings parse(const std::vector<std::string>& arguments) {
    return Settings(arguments, {"enabled", "name"});
}

/// The reason of a refusal as misuse, empty when there was none.
template <typename Action>
std::string misuseOf(Action action) {
    try {
        action();
    } catch (const Failure& failure) {
        return failure.status == Status::misuse ? failure.what() : "refused, but not as misuse";
    }
    return {};
}

TEST(Settings, GivesTheValuesThatWereNamed) {
    const Settings settings = parse({"enabled=yes", "name=a=b"});
    EXPECT_EQ(settings.flag("enabled"), true);
    EXPECT_EQ(settings.text("name"), "a=b");
}

TEST(Settings, WhatWasNotNamedHasNoValue) {
    EXPECT_EQ(parse({}).flag("enabled"), std::nullopt);
    EXPECT_EQ(parse({"enabled=no"}).text("name"), std::nullopt);
}

TEST(Settings, AnEmptyTextIsAValue) {
    EXPECT_EQ(parse({"name="}).text("name"), "");
}

TEST(Settings, FlagsAreYesOrNo) {
    EXPECT_EQ(parse({"enabled=no"}).flag("enabled"), false);
    for (const char* argument : {"enabled=", "enabled=1", "enabled=true", "enabled=Yes", "enabled=yes "})
        EXPECT_NE(misuseOf([=] { (void)parse({argument}).flag("enabled"); }), "") << argument;
}

TEST(Settings, SaysWhichKeysThereAre) {
    EXPECT_EQ(misuseOf([] { parse({"enable=yes"}); }), "unknown key 'enable'; there are: enabled, name");
}

TEST(Settings, RefusesWhatIsNoSetting) {
    EXPECT_EQ(misuseOf([] { parse({"enabled"}); }), "'enabled': expected KEY=VALUE; keys: enabled, name");
    EXPECT_EQ(misuseOf([] { parse({"name=a", "name=b"}); }), "'name' is given twice");
}

}  // namespace
}  // namespace ctl
