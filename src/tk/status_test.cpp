#include "tk/status.h"

#include <cerrno>
#include <memory>

#include <gtest/gtest.h>

namespace {

tk::Result<std::unique_ptr<int>> made(bool wanted) {
    if (!wanted) return tk::Status::failure("not wanted", 7);
    return std::make_unique<int>(5);
}

TEST(Status, AShortageIsOfDescriptorsOrMemory) {
    for (const int error : {EMFILE, ENFILE, ENOBUFS, ENOMEM}) EXPECT_TRUE(tk::isShortage(error)) << error;
    for (const int error : {0, EAGAIN, EINTR, ECONNABORTED, ENOSPC, EACCES, EIO})
        EXPECT_FALSE(tk::isShortage(error)) << error;
}

TEST(Status, IsOkAtFirstAndHasNoReason) {
    EXPECT_TRUE(tk::Status().isOk());
    EXPECT_EQ(tk::Status().reason(), "");
    EXPECT_EQ(tk::Status().code(), 0U);
}

TEST(Status, AFailureKeepsItsReasonAndItsCode) {
    const tk::Status status = tk::Status::failure("no room", 28);
    EXPECT_FALSE(status.isOk());
    EXPECT_EQ(status.reason(), "no room");
    EXPECT_EQ(status.code(), 28U);
}

TEST(Status, AFailureWithoutAReasonIsAFailure) {
    EXPECT_FALSE(tk::Status::failure("").isOk());
}

TEST(Status, ASystemCallsFailureHasTheSystemsText) {
    EXPECT_EQ(tk::Status::ofErrno("/x", ENOENT),
              tk::Status::failure("/x: No such file or directory", ENOENT));
    EXPECT_EQ(tk::Status::ofErrno(EFBIG), tk::Status::failure("File too large", EFBIG));
}

TEST(Status, WordsStandBeforeAReasonAndNotBeforeSuccess) {
    EXPECT_EQ(tk::Status::failure("no room", 28).prefixed("store: "),
              tk::Status::failure("store: no room", 28));
    EXPECT_EQ(tk::Status().prefixed("store: "), tk::Status());
}

TEST(Result, HoldsAValueThatCanBeTakenOut) {
    tk::Result<std::unique_ptr<int>> result = made(true);
    ASSERT_TRUE(result.isOk());
    EXPECT_TRUE(result.status().isOk());
    EXPECT_EQ(**result, 5);
    EXPECT_EQ(*result.take(), 5);
}

TEST(Result, HoldsTheReasonWhereThereIsNoValue) {
    const tk::Result<std::unique_ptr<int>> result = made(false);
    EXPECT_FALSE(result.isOk());
    EXPECT_EQ(result.status(), tk::Status::failure("not wanted", 7));
    EXPECT_EQ(result.reason(), "not wanted");
}

}  // namespace
