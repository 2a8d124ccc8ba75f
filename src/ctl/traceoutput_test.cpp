#include "ctl/traceoutput.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include <gtest/gtest.h>

#include "ctl/fieldspec.h"
#include "tk/bus.h"
#include "tk/fd.h"
#include "tk/names.h"

namespace ctl {
namespace {

struct TraceOutputTest : testing::Test {
    TraceOutputTest() {
        signal(SIGPIPE, SIG_IGN);
        int ends[2];
        EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        writer.reset(ends[1]);
        interruption.reset(eventfd(0, EFD_CLOEXEC));
    }

    void interrupt() {
        const std::uint64_t one = 1;
        EXPECT_EQ(write(interruption.get(), &one, sizeof one), static_cast<ssize_t>(sizeof one));
    }
    std::string read() {
        char bytes[256];
        const ssize_t count = ::read(reader.get(), bytes, sizeof bytes);
        return std::string(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
    }

    tk::Fd reader, writer, interruption;
    TraceOutput output() { return TraceOutput(writer.get(), interruption.get()); }
};

TEST_F(TraceOutputTest, WritesAtOnce) {
    EXPECT_EQ(output().write("a line\n"), TraceOutput::Result::written);
    EXPECT_EQ(read(), "a line\n");
}

TEST_F(TraceOutputTest, ALineStillGoesOutAfterTheInterruptionWhenThereIsRoom) {
    interrupt();
    EXPECT_EQ(output().write("a line\n"), TraceOutput::Result::written);
    EXPECT_EQ(read(), "a line\n");
}

TEST_F(TraceOutputTest, AReaderThatTakesNothingDoesNotHoldUpTheInterruption) {
    interrupt();
    const std::string more(1 << 20, 'x');  // more than the pipe takes
    EXPECT_EQ(output().write(more), TraceOutput::Result::interrupted);
}

TEST_F(TraceOutputTest, TellsThatTheReaderLeft) {
    reader.reset();
    EXPECT_EQ(output().write("a line\n"), TraceOutput::Result::closed);
}

TEST_F(TraceOutputTest, TellsWhyItCannotWrite) {
    const tk::Fd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    TraceOutput target(full.get(), interruption.get());
    EXPECT_EQ(target.write("a line\n"), TraceOutput::Result::failed);
    EXPECT_EQ(target.reason(), "No space left on device");
}

tk::message request() {
    tk::message out = parseFields({"0x27:string=dst nat", "0xFE0007:bool=yes"});
    out.insert_u32_array(tk::field::destination, {20, 5});
    tk::stamp(out, {80, 0}, 17, tk::Kind::request, 0xFE0005);
    return out;
}

/// The notification that holds a traced message.
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
