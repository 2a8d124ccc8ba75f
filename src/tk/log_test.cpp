#include "tk/log.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

#include "tk/fd.h"
#include "tk/testing/capturedoutput.h"

namespace tk {
namespace {

TEST(Log, WritesOneLineAtOnce) {
    const tk::testing::CapturedOutput output;
    log("start int: ", std::string("lan0"), ' ', std::string_view("192.0.2.1"));
    EXPECT_EQ(output.text(), "start int: lan0 192.0.2.1\n");
    EXPECT_TRUE(flushLog());
}

TEST(Log, PrintsBooleansAsDigitsAndNumbersInDecimal) {
    const tk::testing::CapturedOutput output;
    log(true, false, ' ', -5, ' ', std::uint32_t{4294967295}, ' ', std::uint64_t{1} << 40);
    EXPECT_EQ(output.text(), "10 -5 4294967295 1099511627776\n");
}

TEST(Log, TextOfOthersCannotMakeALineOfItsOwn) {
    const tk::testing::CapturedOutput output;
    log("host: ", std::string("evil\nfatal error\x1b[2J"));
    EXPECT_EQ(output.text(), "host: evil\\x0afatal error\\x1b[2J\n");
}

TEST(Log, TextOfOthersCannotSteerTheTerminalOrTurnTheDirection) {
    const tk::testing::CapturedOutput output;
    // NOLINTNEXTLINE(misc-misleading-bidirectional): that is the point
    log("host: ", std::string("\xc2\x9b"
                              "2J \xe2\x80\xaegnp \x9b \xc3\xa9"));
    EXPECT_EQ(output.text(), "host: \\xc2\\x9b2J \\xe2\\x80\\xaegnp \\x9b \xc3\xa9\n");
}

TEST(Log, WritesALineOf4KiBWhole) {
    const tk::testing::CapturedOutput output;
    const std::string text(4095, 'x');
    log(text);
    EXPECT_EQ(output.text(), text + "\n");
}

TEST(Log, CutsALongerLineAndSaysSo) {
    const tk::testing::CapturedOutput output;
    log(std::string(4096, 'x'));
    log(std::string(100000, 'x'));
    const std::string cut = std::string(4089, 'x') + " [cut]\n";
    EXPECT_EQ(output.text(), cut + cut);
}

TEST(Log, CutsWhereACharacterEnds) {
    const tk::testing::CapturedOutput output;
    log(std::string(4087, 'x'), std::string(10, '\t'));
    EXPECT_EQ(output.text(), std::string(4087, 'x') + " [cut]\n");
}

TEST(Log, ErrorTextIsThatOfTheSystem) {
    errno = ENOENT;
    EXPECT_EQ(errorText(), "No such file or directory");
}

TEST(LogBatch, KeepsLinesUntilTheLastBatchEnds) {
    const tk::testing::CapturedOutput output;
    {
        const LogBatch outer;
        {
            const LogBatch inner;
            log("first");
        }
        log("second");
        EXPECT_EQ(output.text(), "");
    }
    EXPECT_EQ(output.text(), "first\nsecond\n");
    log("third");
    EXPECT_EQ(output.text(), "first\nsecond\nthird\n");
}

TEST(LogBatch, LosesNoLinesHoweverManyItHas) {
    const tk::testing::CapturedOutput output;
    std::string expected;
    const LogBatch batch;
    for (int number = 0; number < 1000; ++number) {
        const std::string text = std::to_string(number) + std::string(1000, '.');
        log(text);
        expected += text + "\n";
    }
    EXPECT_TRUE(flushLog());
    EXPECT_TRUE(output.text() == expected);
}

TEST(LogBatch, GivesItsLinesWhenSomethingDependsOnThem) {
    const tk::testing::CapturedOutput output;
    const LogBatch batch;
    log("before the answer");
    EXPECT_TRUE(flushLog());
    EXPECT_EQ(output.text(), "before the answer\n");
}

/// Standard output as a pipe of one page, which nobody reads until the test does. A failed expectation would
/// go there too, so expect only once this is gone.
class StalledReader {
public:
    StalledReader() : original(::dup(STDOUT_FILENO)) {
        int ends[2] = {-1, -1};
        EXPECT_EQ(::pipe2(ends, O_CLOEXEC), 0);
        reader.reset(ends[0]);
        const Fd writer(ends[1]);
        EXPECT_GT(::fcntl(writer.get(), F_SETPIPE_SZ, 4096), 0);
        EXPECT_EQ(::fcntl(reader.get(), F_SETFL, O_NONBLOCK), 0);
        ::fflush(stdout);
        ::dup2(writer.get(), STDOUT_FILENO);
    }
    StalledReader(const StalledReader&) = delete;
    StalledReader& operator=(const StalledReader&) = delete;
    ~StalledReader() { ::dup2(original.get(), STDOUT_FILENO); }

    /// What is in the pipe now.
    std::string read() const {
        std::string content(65536, '\0');
        const ssize_t count = ::read(reader.get(), content.data(), content.size());
        content.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
        return content;
    }
    /// Reads and lets the log go on until nothing waits any more.
    std::string readAll() const {
        std::string content = read();
        bool done = false;
        for (int rounds = 0; rounds < 20000 && !done; ++rounds) {
            done = flushLog();
            content += read();
        }
        return done ? content : content + "and no end";
    }

private:
    Fd original;
    Fd reader;
};

std::string line(int number) {
    return "line " + std::to_string(number) + " " + std::string(80, '.');
}

/// Writes so many lines while nobody reads, then reads them all.
std::string readLate(int lines) {
    const StalledReader stalled;
    for (int number = 0; number < lines; ++number) log(line(number));
    return stalled.readAll();
}

TEST(LogToAStalledReader, LinesWaitAndComeOutWholeAndInOrder) {
    std::string expected;
    for (int number = 0; number < 1000; ++number) expected += line(number) + "\n";
    EXPECT_EQ(readLate(1000), expected);
}

TEST(LogToAStalledReader, LinesBeyondTheLimitAreDroppedAndCounted) {
    constexpr int written = 10000;
    const std::string content = readLate(written);
    std::string expected;
    int kept = 0;
    for (; kept < written && content.starts_with(expected + line(kept) + "\n"); ++kept)
        expected += line(kept) + "\n";
    EXPECT_GT(expected.size(), 255U * 1024);  // the queue's 256 KiB and what the pipe took, but no more
    EXPECT_LT(expected.size(), 262U * 1024);
    EXPECT_EQ(content.substr(expected.size()),
              std::to_string(written - kept) + " log lines dropped: nobody read them\n");
}

TEST(LogToAStalledReader, ABatchComesOutInWholeLines) {
    std::string content, expected;
    {
        const StalledReader stalled;
        for (int number = 0; number < 100; ++number) expected += line(number) + "\n";
        {
            const LogBatch batch;
            for (int number = 0; number < 100; ++number) log(line(number));
        }
        content = stalled.read();  // as much as the pipe took at once
        EXPECT_TRUE(content.ends_with('\n'));
        content += stalled.readAll();
    }
    EXPECT_EQ(content, expected);
}

TEST(LogToAStalledReader, LinesGoOnAfterTheCount) {
    std::string content = readLate(10000);
    const std::string::size_type counted = content.find(" log lines dropped");
    ASSERT_NE(counted, std::string::npos);
    EXPECT_EQ(readLate(1), line(0) + "\n");
}

TEST(LogToAStalledReader, LongestLineComesOutWhole) {
    const std::string text(4095, 'x');
    std::string content;
    {
        const StalledReader stalled;
        log(text);
        log("next");
        content = stalled.readAll();
    }
    EXPECT_EQ(content, text + "\nnext\n");
}

TEST(Log, ReaderThatIsGoneIsNoError) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
    const Fd writer(ends[1]);
    ::close(ends[0]);
    ::fflush(stdout);
    const Fd original(::dup(STDOUT_FILENO));
    const auto before = ::signal(SIGPIPE, SIG_IGN);
    ::dup2(writer.get(), STDOUT_FILENO);
    log("to nobody");
    const bool done = flushLog();
    ::dup2(original.get(), STDOUT_FILENO);
    ::signal(SIGPIPE, before);
    EXPECT_TRUE(done);
}

}  // namespace
}  // namespace tk
