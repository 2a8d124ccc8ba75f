#include "upnp/variable.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

struct Counter {
    std::string next() { return std::to_string(++count); }
    int count = 0;
};

TEST(Variable, StartsAsATextWithoutAValue) {
    const Variable variable({"a", "b"}, /*evented=*/true);
    EXPECT_EQ(variable.type, VariableType::string);
    EXPECT_TRUE(variable.evented);
    EXPECT_FALSE(variable.rangeSet);
    EXPECT_FALSE(variable.hasValue);
    EXPECT_EQ(variable.allowed, (std::list<std::string>{"a", "b"}));
}

TEST(Variable, WithoutAValueNothingIsRead) {
    std::string out = "untouched";
    EXPECT_FALSE(Variable({}, false).getValue(out));
    EXPECT_EQ(out, "untouched");
}

TEST(Variable, FixedValueIsRead) {
    Variable variable({}, false);
    variable.setValue("");
    std::string out = "old";
    EXPECT_TRUE(variable.getValue(out));
    EXPECT_EQ(out, "");
}

TEST(Variable, GetterIsCalledAtEveryRead) {
    Counter counter;
    Variable variable({}, false);
    variable.setValue(&counter, &Counter::next);
    std::string out;
    EXPECT_TRUE(variable.getValue(out));
    EXPECT_TRUE(variable.getValue(out));
    EXPECT_EQ(out, "2");
}

TEST(Variable, FixedValueDropsTheGetterForGood) {
    Counter counter;
    Variable variable({}, false);
    variable.setValue(&counter, &Counter::next);
    variable.setValue("fixed");
    std::string out;
    EXPECT_TRUE(variable.getValue(out));
    EXPECT_EQ(out, "fixed");
    EXPECT_EQ(counter.count, 0);
}

struct Case {
    const char* name;
    int type;
    const char* text;
    bool accepted;
};

constexpr Case cases[] = {
    {"NumberEmptyReadsAsZero", 0, "", true},
    {"NumberPlain", 0, "80", true},
    {"NumberTrailingJunk", 0, "80x", false},
    {"NumberTrailingBlank", 0, "80 ", false},
    {"NumberLeadingBlank", 0, " 80", true},
    {"NumberWord", 0, "eighty", false},
    {"NumberBlank", 0, " ", false},
    {"NumberMinusOneIsTheLargest", 0, "-1", true},
    {"NumberTooLargeSaturates", 0, "4294967376", true},
    {"Number65536", 0, "65536", true},
    {"PortEmptyReadsAsZero", 1, "", true},
    {"PortHighest", 1, "65535", true},
    {"PortTooHigh", 1, "65536", false},
    {"PortDoesNotWrap", 1, "4294967376", false},
    {"PortMinusOne", 1, "-1", false},
    {"PortTrailingJunk", 1, "80x", false},
    {"TextAny", 2, "anything", true},
    {"TextEmpty", 2, "", true},
    {"BooleanOne", 3, "1", true},
    {"BooleanZero", 3, "0", true},
    {"BooleanTrue", 3, "true", true},
    {"BooleanFalse", 3, "false", true},
    {"BooleanYes", 3, "yes", true},
    {"BooleanNo", 3, "no", true},
    {"BooleanUpperCase", 3, "TRUE", false},
    {"BooleanEmpty", 3, "", false},
    {"BooleanTwo", 3, "2", false},
    {"TypeBelow", -1, "0", false},
    {"TypeAbove", 4, "0", false},
};

class CheckValue : public testing::TestWithParam<Case> {};

TEST_P(CheckValue, AnswersAsTabled) {
    Variable variable({}, /*evented=*/false);
    variable.type = static_cast<VariableType>(GetParam().type);
    EXPECT_EQ(checkValue(variable, GetParam().text), GetParam().accepted);
}

INSTANTIATE_TEST_SUITE_P(Types, CheckValue, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

Variable ranged(VariableType type, std::uint32_t minimum, std::uint32_t maximum) {
    Variable variable({}, false);
    variable.type = type;
    variable.rangeSet = true;
    variable.minimum = minimum;
    variable.maximum = maximum;
    return variable;
}

TEST(CheckValueRange, BothEndsBelongToIt) {
    const Variable variable = ranged(VariableType::ui4, 5, 10);
    EXPECT_FALSE(checkValue(variable, "4"));
    EXPECT_TRUE(checkValue(variable, "5"));
    EXPECT_TRUE(checkValue(variable, "10"));
    EXPECT_FALSE(checkValue(variable, "11"));
}

TEST(CheckValueRange, EmptyTextIsRefusedWhereZeroIsExcluded) {
    EXPECT_FALSE(checkValue(ranged(VariableType::ui4, 1, 10), ""));
    EXPECT_TRUE(checkValue(ranged(VariableType::ui4, 0, 10), ""));
}

TEST(CheckValueRange, MinusOneIsRefusedByAMaximum) {
    EXPECT_FALSE(checkValue(ranged(VariableType::ui4, 0, 4294967294), "-1"));
    EXPECT_TRUE(checkValue(ranged(VariableType::ui4, 0, 4294967295), "-1"));
}

TEST(CheckValueRange, AppliesToPortsBesideTheirOwnLimit) {
    EXPECT_FALSE(checkValue(ranged(VariableType::ui2, 1, 100000), "0"));
    EXPECT_FALSE(checkValue(ranged(VariableType::ui2, 1, 100000), "65536"));
}

TEST(CheckValueRange, DoesNotApplyToTextsAndBooleans) {
    EXPECT_TRUE(checkValue(ranged(VariableType::string, 5, 10), "1"));
    EXPECT_TRUE(checkValue(ranged(VariableType::boolean, 5, 10), "1"));
}

TEST(CheckValueAllowed, OnlyAListedTextPassesAndCaseMatters) {
    const Variable variable({"TCP", "UDP"}, false);
    EXPECT_TRUE(checkValue(variable, "TCP"));
    EXPECT_FALSE(checkValue(variable, "tcp"));
    EXPECT_FALSE(checkValue(variable, "TCP "));
    EXPECT_FALSE(checkValue(variable, ""));
}

TEST(CheckValueAllowed, ListDoesNotApplyToNumbers) {
    Variable variable({"TCP"}, false);
    variable.type = VariableType::ui4;
    EXPECT_TRUE(checkValue(variable, "80"));
}

}  // namespace

}  // namespace gateway
