#include "ctl/traceoutput.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cstdint>

#include <gtest/gtest.h>

#include "tk/fd.h"

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
    const std::string more(1 << 20, 'x');  // than the pipe takes
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

}  // namespace
}  // namespace ctl
