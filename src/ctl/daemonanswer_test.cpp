#include "ctl/daemonanswer.h"

#include <sstream>

#include <gtest/gtest.h>

#include "contract/programs.h"
#include "ctl/startadvice.h"
#include "tk/names.h"
#include "tk/testing/scriptedbus.h"

namespace ctl {
namespace {

struct DaemonAnswer : testing::Test {
    DaemonAnswer() {
        bus.answer(contract::path::gateway(), tk::command::get,
                   tk::errorMsg(tk::error::timedOut, "timed out"));
    }
    /// Puts one program on the bus.
    void registers(std::uint32_t number) {
        tk::message program;
        program.insert_u32(tk::hubfield::number, number);
        tk::message reply;
        reply.insert_message_array(tk::field::objects, {program});
        bus.answer(contract::path::hub(), tk::command::hubPrograms, reply);
    }

    tk::testing::ScriptedBus bus;
    Session session{bus};
    std::ostringstream notices;
};

TEST_F(DaemonAnswer, ASilentDaemonIsWaitedForWithANotice) {
    EXPECT_TRUE(tk::isError(askSettings(session, Wait::start, notices)));
    EXPECT_EQ(notices.str(), "tkctl: waiting for upnpd to answer, up to 10 s\n");
    EXPECT_EQ(bus.requests.size(), 2U);
}

TEST_F(DaemonAnswer, IsAwaitedForAMomentWithoutANotice) {
    EXPECT_TRUE(tk::isError(askSettings(session, Wait::moment, notices)));
    EXPECT_EQ(notices.str(), "");
    EXPECT_EQ(bus.requests.size(), 1U);
}

TEST_F(DaemonAnswer, NobodyThereIsNotWaitedFor) {
    bus.answer(contract::path::gateway(), tk::command::get, tk::errorMsg(tk::error::unreachable, "nobody"));
    EXPECT_TRUE(tk::isError(askSettings(session, Wait::start, notices)));
    EXPECT_EQ(bus.requests.size(), 1U);
}

TEST_F(DaemonAnswer, NotToRunAndNotToAnswerAreTwoThings) {
    registers(contract::program::resolver);
    EXPECT_EQ(whySilent(session), "upnpd does not run; " + startAdvice("upnpd"));
    registers(contract::program::gateway);
    EXPECT_EQ(whySilent(session), "upnpd runs, but does not answer; " + restartAdvice("upnpd"));
}

}  // namespace
}  // namespace ctl
