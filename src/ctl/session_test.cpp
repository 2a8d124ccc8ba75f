#include "ctl/session.h"

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/failure.h"
#include "ctl/startadvice.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

const tk::Path service{20, 5};

/// A page with one object, and where the list continues.
tk::message page(std::uint32_t id, std::uint32_t next = tk::unassigned) {
    tk::message object;
    object.insert_u32(tk::field::objectId, id);
    tk::message reply;
    reply.insert_message_array(tk::field::objects, {object});
    if (next != tk::unassigned) reply.insert_u32(tk::field::next, next);
    return reply;
}

struct SessionTest : testing::Test {
    /// Why request 5 to a service fails; empty when it does not.
    std::string failureOf(const tk::Path& path) {
        try {
            session.request(path, 5);
        } catch (const Failure& failure) {
            return failure.what();
        }
        return {};
    }

    tk::testing::ScriptedBus bus;
    Session session{bus};
};

TEST_F(SessionTest, SendsTheDestinationBeforeTheFields) {
    tk::message fields;
    fields.insert_u32(1, 7);
    session.request(service, 5, fields);

    tk::message expected;
    expected.insert_u32_array(tk::field::destination, service);
    expected.insert_u32(1, 7);
    ASSERT_EQ(bus.requests.size(), 1U);
    EXPECT_EQ(bus.requests[0].content, expected);
    EXPECT_EQ(bus.requests[0].command, 5U);
    EXPECT_TRUE(bus.requests[0].from.empty());
}

TEST_F(SessionTest, AListWalksAllPages) {
    bus.answer(service, tk::command::getAll, [](const tk::message& request) {
        switch (request.get_u32(tk::field::next, tk::unassigned)) {
            case tk::unassigned:
                return page(1, 2);
            case 2:
                return page(2, 5);
            case 5:
                return page(5);
            default:
                return tk::errorMsg(tk::error::invalid, "no such page");
        }
    });
    std::vector<std::uint32_t> ids;
    for (const tk::message& object : session.list(service))
        ids.push_back(object.get_u32(tk::field::objectId));
    EXPECT_EQ(ids, (std::vector<std::uint32_t>{1, 2, 5}));
}

TEST_F(SessionTest, AListWithoutObjectsIsEmpty) {
    EXPECT_TRUE(session.list(service).empty());
}

TEST_F(SessionTest, AListThatGoesInCirclesIsRefused) {
    bus.answer(service, tk::command::getAll, page(1, 2));
    EXPECT_THROW((void)session.list(service), Failure);
    EXPECT_EQ(bus.requests.size(), 2U);
}

TEST_F(SessionTest, ARefusalCarriesTheErrorsText) {
    bus.answer(service, 5, tk::errorMsg(tk::error::exists, "Interface already added"));
    try {
        session.request(service, 5);
        FAIL() << "no failure";
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), "Interface already added");
        EXPECT_EQ(failure.status, Status::failed);
    }
}

TEST_F(SessionTest, AProgramThatDoesNotAnswerIsNamed) {
    bus.answer(contract::path::gateway(), 5,
               tk::errorMsg(tk::error::unreachable, "nobody at this destination"));
    bus.answer(service, 5, tk::errorMsg(tk::error::timedOut, "timed out"));
    EXPECT_EQ(failureOf(contract::path::gateway()),
              "upnpd does not answer: nobody at this destination; " + startAdvice("upnpd"));
    bus.answer({contract::program::resolver}, 5, tk::errorMsg(tk::error::timedOut, "timed out"));
    EXPECT_EQ(failureOf(service), "routerd does not answer: timed out; " + restartAdvice("routerd"));
    EXPECT_EQ(failureOf({contract::program::resolver}),
              "resolverd does not answer: timed out; " + restartAdvice("resolverd"));
}

TEST_F(SessionTest, ARefusalWithoutTextTellsTheCode) {
    EXPECT_STREQ(failureFrom(tk::errorMsg(tk::error::refused, "")).what(), "refused with error 0xfe0003");
}

TEST_F(SessionTest, AnEndMadeOnOurSideIsRoutedLikeAnyOther) {
    bus.answer(service, 5, tk::errorMsg(tk::error::timedOut, "timed out"));
    const tk::message end = session.exchange(service, 5);
    EXPECT_EQ(tk::kindOf(end), tk::Kind::error);
    EXPECT_EQ(end.get_u32_array(tk::field::sender), service);
    EXPECT_EQ(end.get_u32(tk::field::command), 5U);
}

}  // namespace
}  // namespace ctl
