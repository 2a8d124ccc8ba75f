#include "tk/message.h"

#include <gmock/gmock.h>

#include "tk/names.h"

namespace tk {
namespace {

/// The ids of a message's fields, in order.
std::vector<std::uint32_t> idsOf(const message& source) {
    std::vector<std::uint32_t> ids;
    for (const message::Field& field : source.fields()) ids.push_back(field.id);
    return ids;
}

/// One field of each type, under the ids 1 to 7.
message oneOfEach() {
    message inner;
    inner.insert_u32(1, 5);
    message all;
    all.insert_u32(1, 7);
    all.insert_bool(2, true);
    all.insert_string(3, "text");
    all.insert_be32(4, 0x010200C0);
    all.insert_u64(5, 0x1122334455667788);
    all.insert_u32_array(6, {1, 2});
    all.insert_message_array(7, {inner, message()});
    return all;
}

TEST(Message, StartsEmpty) {
    const message empty;
    EXPECT_TRUE(empty.empty());
    EXPECT_TRUE(empty.fields().empty());
    EXPECT_EQ(empty, message());
}

TEST(Message, RoomForFieldsIsNoField) {
    message roomy;
    roomy.reserve(20);
    roomy.reserve(static_cast<std::size_t>(-1));
    EXPECT_TRUE(roomy.empty());
    EXPECT_EQ(roomy, message());
}

TEST(Message, AbsentFieldsReadAsTheDefaultThatIsPassed) {
    const message empty;
    EXPECT_EQ(empty.get_u32(1, 9), 9U);
    EXPECT_TRUE(empty.get_bool(1, true));
    EXPECT_EQ(empty.get_string(1, "none"), "none");
    EXPECT_EQ(empty.get_be32(1, 8), 8U);
    EXPECT_EQ(empty.get_u64(1, 1ULL << 40), 1ULL << 40);
}

TEST(Message, AbsentFieldsReadAsZeroWithoutADefault) {
    const message empty;
    EXPECT_EQ(empty.get_u32(1), 0U);
    EXPECT_FALSE(empty.get_bool(1));
    EXPECT_EQ(empty.get_string(1), "");
    EXPECT_EQ(empty.get_be32(1), 0U);
    EXPECT_EQ(empty.get_u64(1), 0U);
    EXPECT_TRUE(empty.get_u32_array(1).empty());
    EXPECT_TRUE(empty.get_message_array(1).empty());
}

TEST(Message, PresentFieldsReadAsInsertedWhateverTheDefault) {
    const message all = oneOfEach();
    EXPECT_EQ(all.get_u32(1, 9), 7U);
    EXPECT_TRUE(all.get_bool(2, false));
    EXPECT_EQ(all.get_string(3, "none"), "text");
    EXPECT_EQ(all.get_be32(4, 8), 0x010200C0U);
    EXPECT_EQ(all.get_u64(5, 1), 0x1122334455667788U);
    EXPECT_THAT(all.get_u32_array(6), ::testing::ElementsAre(1U, 2U));
    ASSERT_EQ(all.get_message_array(7).size(), 2U);
    EXPECT_EQ(all.get_message_array(7)[0].get_u32(1), 5U);
}

TEST(Message, FieldsOfAnotherTypeReadAsAbsent) {
    const message all = oneOfEach();
    EXPECT_EQ(all.get_u32(2, 9), 9U);
    EXPECT_EQ(all.get_u32(4, 9), 9U);
    EXPECT_EQ(all.get_be32(1, 9), 9U);
    EXPECT_EQ(all.get_u64(1, 9), 9U);
    EXPECT_TRUE(all.get_bool(1, true));
    EXPECT_EQ(all.get_string(1, "none"), "none");
    EXPECT_TRUE(all.get_message_array(6).empty());
    EXPECT_TRUE(all.get_u32_array(7).empty());
}

TEST(Message, FieldsKeepTheOrderOfInsertion) {
    message ordered;
    ordered.insert_u32(30, 0);
    ordered.insert_bool(10, false);
    ordered.insert_string(20, "");
    EXPECT_THAT(idsOf(ordered), ::testing::ElementsAre(30U, 10U, 20U));
}

TEST(Message, FieldsOfATemporaryOutliveIt) {
    std::vector<std::uint32_t> ids;
    for (const message::Field& field : oneOfEach().fields()) ids.push_back(field.id);
    EXPECT_THAT(ids, ::testing::ElementsAre(1U, 2U, 3U, 4U, 5U, 6U, 7U));
}

TEST(Message, InsertReplacesAFieldWhereItStands) {
    message changed = oneOfEach();
    changed.insert_string(2, "was a bool");
    EXPECT_THAT(idsOf(changed), ::testing::ElementsAre(1U, 2U, 3U, 4U, 5U, 6U, 7U));
    EXPECT_EQ(changed.get_string(2), "was a bool");
    EXPECT_FALSE(changed.get_bool(2));
}

TEST(Message, InsertTakesAFieldOfAnotherMessageWhateverItsType) {
    message copy;
    copy.insert_u32(3, 1);
    for (const message::Field& field : oneOfEach().fields()) copy.insert(field);
    EXPECT_THAT(idsOf(copy), ::testing::ElementsAre(3U, 1U, 2U, 4U, 5U, 6U, 7U));
    EXPECT_EQ(copy.get_string(3), "text");
    EXPECT_EQ(copy.get_message_array(7), oneOfEach().get_message_array(7));
}

TEST(Message, ReferencesMakeAnAbsentFieldWithAZeroValue) {
    message made;
    EXPECT_EQ(made.get_u32_ref(1), 0U);
    EXPECT_FALSE(made.get_bool_ref(2));
    EXPECT_EQ(made.get_string_ref(3), "");
    EXPECT_EQ(made.get_be32_ref(4), 0U);
    EXPECT_EQ(made.get_u64_ref(5), 0U);
    EXPECT_TRUE(made.get_u32_array_ref(6).empty());
    EXPECT_TRUE(made.get_message_array_ref(7).empty());
    EXPECT_THAT(idsOf(made), ::testing::ElementsAre(1U, 2U, 3U, 4U, 5U, 6U, 7U));
}

TEST(Message, ReferencesWriteThrough) {
    message written = oneOfEach();
    written.get_u32_ref(1) = 70;
    written.get_bool_ref(2) = false;
    written.get_string_ref(3) += "s";
    written.get_be32_ref(4) = 1;
    written.get_u64_ref(5) += 1;
    written.get_u32_array_ref(6).push_back(3);
    written.get_message_array_ref(7).pop_back();
    EXPECT_EQ(written.get_u32(1), 70U);
    EXPECT_FALSE(written.get_bool(2, true));
    EXPECT_EQ(written.get_string(3), "texts");
    EXPECT_EQ(written.get_be32(4), 1U);
    EXPECT_EQ(written.get_u64(5), 0x1122334455667789U);
    EXPECT_THAT(written.get_u32_array(6), ::testing::ElementsAre(1U, 2U, 3U));
    EXPECT_EQ(written.size_message_array(7), 1U);
}

TEST(Message, AReferenceOfAnotherTypeReplacesTheFieldWhereItStands) {
    message replaced = oneOfEach();
    EXPECT_EQ(replaced.get_u32_ref(3), 0U);
    EXPECT_THAT(idsOf(replaced), ::testing::ElementsAre(1U, 2U, 3U, 4U, 5U, 6U, 7U));
    EXPECT_EQ(replaced.get_string(3, "gone"), "gone");
}

TEST(Message, HasArrayTellsArraysOfBothKindsFromEverythingElse) {
    message arrays = oneOfEach();
    arrays.insert_u32_array(8, {});
    arrays.insert_message_array(9, {});
    for (const std::uint32_t id : {6U, 7U, 8U, 9U}) EXPECT_TRUE(arrays.has_array(id)) << id;
    for (const std::uint32_t id : {1U, 2U, 3U, 4U, 5U, 10U}) EXPECT_FALSE(arrays.has_array(id)) << id;
    EXPECT_TRUE(arrays.has(1));
    EXPECT_FALSE(arrays.has(10));
}

TEST(Message, SizeOfAMessageArrayIsZeroWhereThereIsNone) {
    const message all = oneOfEach();
    EXPECT_EQ(all.size_message_array(7), 2U);
    EXPECT_EQ(all.size_message_array(6), 0U);
    EXPECT_EQ(all.size_message_array(8), 0U);
}

TEST(Message, RemoveDropsOneFieldAndAnAbsentOneIsNoError) {
    message shorter = oneOfEach();
    shorter.remove(3);
    shorter.remove(30);
    EXPECT_THAT(idsOf(shorter), ::testing::ElementsAre(1U, 2U, 4U, 5U, 6U, 7U));
}

TEST(Message, CopiesAreDeep) {
    const message original = oneOfEach();
    message copy = original;
    copy.get_message_array_ref(7)[0].insert_u32(1, 6);
    copy.get_u32_array_ref(6)[0] = 9;
    copy.get_string_ref(3) = "other";
    EXPECT_EQ(original, oneOfEach());
    EXPECT_NE(copy, original);
}

TEST(Message, IsEqualByContentAndOrder) {
    message left;
    left.insert_u32(1, 1);
    left.insert_u32(2, 2);
    message right;
    right.insert_u32(2, 2);
    right.insert_u32(1, 1);
    EXPECT_NE(left, right);
    right.remove(2);
    right.insert_u32(2, 2);
    EXPECT_EQ(left, right);
}

TEST(Message, AddressesAndNumbersOfTheSameValueAreDifferentFields) {
    message address;
    address.insert_be32(1, 5);
    message number;
    number.insert_u32(1, 5);
    EXPECT_NE(address, number);
}

TEST(Message, ErrorsCarryTheirCodeAndTheirText) {
    const message error = errorMsg(0xFE0009, "Interface already set");
    EXPECT_THAT(idsOf(error), ::testing::ElementsAre(0xFF0008U, 0xFF0009U));
    std::uint32_t code = 0;
    std::string text;
    ASSERT_TRUE(isError(error, &code, &text));
    EXPECT_EQ(code, 0xFE0009U);
    EXPECT_EQ(text, "Interface already set");
    EXPECT_EQ(getError(error), "Interface already set");
}

TEST(Message, EveryOtherMessageIsNoErrorAndTouchesNothing) {
    std::uint32_t code = 3;
    std::string text = "before";
    EXPECT_FALSE(isError(oneOfEach(), &code, &text));
    EXPECT_FALSE(isError(message()));
    EXPECT_EQ(code, 3U);
    EXPECT_EQ(text, "before");
    EXPECT_EQ(getError(oneOfEach()), "");
}

}  // namespace
}  // namespace tk
