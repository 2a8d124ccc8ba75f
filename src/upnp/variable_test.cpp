#include "upnp/variable.h"

#include <gtest/gtest.h>

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

}  // namespace
