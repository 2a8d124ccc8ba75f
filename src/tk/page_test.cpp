#include "tk/page.h"

#include <map>

#include <gtest/gtest.h>

namespace router {
namespace {

using Numbers = std::map<std::uint32_t, int>;

tk::message page(const Numbers& numbers, std::uint32_t from, std::size_t size) {
    tk::message request;
    if (from != 0) request.insert_u32(tk::field::next, from);
    return pageOf(numbers, request, size, [](std::uint32_t id, int) {
        tk::message record;
        record.insert_u32(tk::field::objectId, id);
        return record;
    });
}

std::vector<std::uint32_t> idsOf(const tk::message& reply) {
    std::vector<std::uint32_t> ids;
    for (const tk::message& record : reply.get_message_array(tk::field::objects))
        ids.push_back(record.get_u32(tk::field::objectId));
    return ids;
}

TEST(PageOf, NothingIsAnEmptyLastPage) {
    const tk::message reply = page({}, 0, 2);
    EXPECT_TRUE(reply.has_array(tk::field::objects));
    EXPECT_EQ(reply.size_message_array(tk::field::objects), 0U);
    EXPECT_FALSE(reply.has(tk::field::next));
}

TEST(PageOf, ExactlyFullIsTheLastPage) {
    const tk::message reply = page({{3, 0}, {5, 0}}, 0, 2);
    EXPECT_EQ(idsOf(reply), (std::vector<std::uint32_t>{3, 5}));
    EXPECT_FALSE(reply.has(tk::field::next));
}

TEST(PageOf, GoesOnWhereTheLastPageEnded) {
    const Numbers numbers{{1, 0}, {4, 0}, {9, 0}};
    const tk::message first = page(numbers, 0, 2);
    EXPECT_EQ(idsOf(first), (std::vector<std::uint32_t>{1, 4}));
    ASSERT_EQ(first.get_u32(tk::field::next), 9U);
    const tk::message second = page(numbers, 9, 2);
    EXPECT_EQ(idsOf(second), (std::vector<std::uint32_t>{9}));
    EXPECT_FALSE(second.has(tk::field::next));
}

TEST(PageOf, TheNextObjectMayBeGone) {
    EXPECT_EQ(idsOf(page({{1, 0}, {7, 0}}, 5, 2)), (std::vector<std::uint32_t>{7}));
    EXPECT_TRUE(idsOf(page({{1, 0}}, 5, 2)).empty());
    EXPECT_EQ(idsOf(page({{1, 0}}, tk::unassigned, 2)), (std::vector<std::uint32_t>{1}));
}

}  // namespace
}  // namespace router
