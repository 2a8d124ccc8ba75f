#include "tk/answer.h"

#include <gtest/gtest.h>

#include "tk/names.h"

namespace tk {
namespace {

TEST(AnswerOf, SuccessIsAnEmptyMessage) {
    EXPECT_EQ(answerOf(Status()), message());
    EXPECT_EQ(answerOf(Status(), error::failed), message());
}

TEST(AnswerOf, FailureIsAnErrorWithTheReason) {
    const Status busy = Status::failure("full", error::busy);
    EXPECT_EQ(answerOf(busy), errorMsg(error::busy, "full"));
    EXPECT_EQ(answerOf(busy, error::failed), errorMsg(error::failed, "full"));
}

TEST(CountReply, CarriesTheNumberOfObjects) {
    message expected;
    expected.insert_u32(0xFE000F, 7);
    EXPECT_EQ(countReply(7), expected);
}

TEST(MarkDeleted, AddsTheMarkToTheRecord) {
    message record;
    record.insert_u32(field::objectId, 3);
    message expected = record;
    expected.insert_u32(0xFE0013, 1);
    markDeleted(record);
    EXPECT_EQ(record, expected);
}

}  // namespace
}  // namespace tk
