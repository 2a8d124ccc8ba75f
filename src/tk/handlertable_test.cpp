#include "tk/handlertable.h"

#include <string>

#include <gtest/gtest.h>

namespace tk {
namespace {

/// Answers with its name and the operation called.
class Naming final : public Handler {
public:
    explicit Naming(std::string name) : name(std::move(name)) {}

    message handle(const message&) override { return called("handle"); }
    message handleBrkpath(const message&) override { return called("handleBrkpath"); }
    message checkPolicy(const message&) override {
        return refuses ? errorMsg(error::notAllowed, name) : message();
    }
    bool refuses = false;

private:
    message called(const std::string& operation) const {
        message answer;
        answer.insert_string(1, name + " " + operation);
        return answer;
    }
    std::string name;
};

class HandlerTableTest : public ::testing::Test {
protected:
    void SetUp() override {
        table.add(0, zero);
        table.add(5, five);
    }
    message ask(const Path& to) const {
        message request;
        request.insert_u32_array(field::destination, to);
        return table.answer(request);
    }

    Naming zero{"zero"};
    Naming five{"five"};
    HandlerTable table;
};

TEST_F(HandlerTableTest, TheSecondElementOfThePathNamesTheHandler) {
    EXPECT_EQ(ask({20, 5}).get_string(1), "five handle");
    EXPECT_EQ(ask({20}).get_string(1), "zero handle");
}

TEST_F(HandlerTableTest, WhatAPathNamesBeyondTheHandlerIsTheHandlersOwn) {
    EXPECT_EQ(ask({20, 5, 1}).get_string(1), "five handleBrkpath");
}

TEST_F(HandlerTableTest, AHandlerThatRefusesIsNotCalled) {
    five.refuses = true;
    EXPECT_EQ(ask({20, 5}), errorMsg(error::notAllowed, "five"));
}

TEST_F(HandlerTableTest, AnswersForHandlersThatAreAbsent) {
    table.remove(5);
    EXPECT_EQ(table.find(5), nullptr);
    EXPECT_EQ(ask({20, 5}), errorMsg(error::unreachable, "no such handler"));
}

}  // namespace
}  // namespace tk
