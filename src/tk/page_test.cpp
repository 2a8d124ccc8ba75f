#include "tk/page.h"

#include <map>

#include <gtest/gtest.h>

namespace tk {
namespace {

using Numbers = std::map<std::uint32_t, int>;

message page(const Numbers& numbers, std::uint32_t from, std::size_t size) {
    message request;
    if (from != 0) request.insert_u32(field::next, from);
    return pageOf(numbers, request, size, [](std::uint32_t id, int) {
        message record;
        record.insert_u32(field::objectId, id);
        return record;
    });
}

std::vector<std::uint32_t> idsOf(const message& reply) {
    std::vector<std::uint32_t> ids;
    for (const message& record : reply.get_message_array(field::objects))
        ids.push_back(record.get_u32(field::objectId));
    return ids;
}

TEST(PageOf, NothingIsAnEmptyLastPage) {
    const message reply = page({}, 0, 2);
    EXPECT_TRUE(reply.has_array(field::objects));
    EXPECT_EQ(reply.size_message_array(field::objects), 0U);
    EXPECT_FALSE(reply.has(field::next));
}

TEST(PageOf, ExactlyFullIsTheLastPage) {
    const message reply = page({{3, 0}, {5, 0}}, 0, 2);
    EXPECT_EQ(idsOf(reply), (std::vector<std::uint32_t>{3, 5}));
    EXPECT_FALSE(reply.has(field::next));
}

TEST(PageOf, GoesOnWhereTheLastPageEnded) {
    const Numbers numbers{{1, 0}, {4, 0}, {9, 0}};
    const message first = page(numbers, 0, 2);
    EXPECT_EQ(idsOf(first), (std::vector<std::uint32_t>{1, 4}));
    ASSERT_EQ(first.get_u32(field::next), 9U);
    const message second = page(numbers, 9, 2);
    EXPECT_EQ(idsOf(second), (std::vector<std::uint32_t>{9}));
    EXPECT_FALSE(second.has(field::next));
}

TEST(PageOf, TheNextObjectMayBeGone) {
    EXPECT_EQ(idsOf(page({{1, 0}, {7, 0}}, 5, 2)), (std::vector<std::uint32_t>{7}));
    EXPECT_TRUE(idsOf(page({{1, 0}}, 5, 2)).empty());
    EXPECT_EQ(idsOf(page({{1, 0}}, unassigned, 2)), (std::vector<std::uint32_t>{1}));
}

}  // namespace
}  // namespace tk
