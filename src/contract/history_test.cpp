#include "contract/history.h"

#include <gtest/gtest.h>

#include "tk/names.h"

namespace contract {
namespace {

tk::message withNumber(std::uint32_t value) {
    tk::message made;
    made.insert_u32(1, value);
    return made;
}

TEST(UndoRecord, ComesBackAsItWasSent) {
    const UndoRecord record{7, withNumber(1), withNumber(2), "a change", 80, 1700000000, {80, 0}};
    EXPECT_EQ(UndoRecord::fromMessage(record.toMessage()), record);
}

TEST(UndoRecord, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u32(0xFE0001, 7);
    expected.insert_message_array(1, {withNumber(1)});
    expected.insert_message_array(2, {withNumber(2)});
    expected.insert_string(3, "a change");
    expected.insert_u32(4, 80);
    expected.insert_u64(5, 1700000000);
    expected.insert_u32_array(6, {80, 0});
    EXPECT_EQ((UndoRecord{7, withNumber(1), withNumber(2), "a change", 80, 1700000000, {80, 0}}.toMessage()),
              expected);
}

TEST(UndoRecord, ReadsWhatIsMissingAsNothing) {
    EXPECT_EQ(UndoRecord::fromMessage({}), UndoRecord());
}

}  // namespace
}  // namespace contract
