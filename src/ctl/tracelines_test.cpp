#include "ctl/tracelines.h"

#include <gtest/gtest.h>

#include "ctl/fieldspec.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace ctl {
namespace {

tk::message request() {
    tk::message out = parseFields({"0x27:string=dst nat", "0xFE0007:bool=yes"});
    out.insert_u32_array(tk::field::destination, {20, 5});
    tk::stamp(out, {80, 0}, 17, tk::Kind::request, 0xFE0005);
    return out;
}

/// The notification that brings a traced message.
tk::message traceOf(const std::vector<tk::message>& messages, const tk::Path& from = {0},
                    std::uint32_t command = tk::command::hubTraced) {
    tk::message out;
    out.insert_message_array(1, messages);
    tk::stamp(out, from, 0, tk::Kind::notification, command);
    return out;
}

TEST(TraceLines, ARequest) {
    EXPECT_EQ(traceText(request()),
              R"(request      80,0 > 20,5 0xfe0005 #17 0x27:string="dst nat" 0xfe0007:bool=true)");
}

TEST(TraceLines, AReply) {
    EXPECT_EQ(traceText(tk::endOf(request(), parseFields({"0xFE0001:u32=1"}))),
              "reply        20,5 > 80,0 0xfe0005 #17 0xfe0001:u32=1");
}

TEST(TraceLines, AnErrorWithItsTextOnOneLine) {
    EXPECT_EQ(traceText(tk::endOf(request(), tk::errorMsg(0xFE0003, "no\nway"))),
              R"(error        20,5 > 80,0 0xfe0005 #17 0xfe0003 "no\nway")");
}

TEST(TraceLines, ANotification) {
    tk::message notification;
    tk::stamp(notification, {20, 1}, 0, tk::Kind::notification, tk::command::objectsChanged);
    EXPECT_EQ(traceText(notification), "notification 20,1 > - 0xfe000b");
}

TEST(TraceLines, TheMessageWithinANotificationOfTheHub) {
    const tk::message received = traceOf({request()});
    const tk::message* traced = tracedMessage(received);
    ASSERT_NE(traced, nullptr);
    EXPECT_EQ(*traced, request());
}

TEST(TraceLines, NothingElseIsATrace) {
    EXPECT_EQ(tracedMessage(traceOf({request()}, {20, 0})), nullptr);
    EXPECT_EQ(tracedMessage(traceOf({request()}, {0}, tk::command::objectsChanged)), nullptr);
    EXPECT_EQ(tracedMessage(traceOf({})), nullptr);
    EXPECT_EQ(tracedMessage(traceOf({request(), request()})), nullptr);
    EXPECT_EQ(tracedMessage(request()), nullptr);
}

}  // namespace
}  // namespace ctl
