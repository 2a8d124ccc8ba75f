#include "ctl/terminal.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/ioctl.h>

#include <map>

#include <gtest/gtest.h>

#include "tk/fd.h"

namespace ctl {
namespace {

/// A terminal of its own, and the variables that its user has set.
struct TerminalTest : testing::Test {
    void SetUp() override {
        ASSERT_EQ(grantpt(master.get()), 0);
        ASSERT_EQ(unlockpt(master.get()), 0);
        slave = tk::Fd(open(ptsname(master.get()), O_RDWR | O_NOCTTY | O_CLOEXEC));
        ASSERT_TRUE(slave.isOpen());
    }
    Terminal seen(int descriptor) const {
        return Terminal::of(descriptor, [this](const char* name) {
            const auto found = variables.find(name);
            return found == variables.end() ? nullptr : found->second.c_str();
        });
    }
    void resize(unsigned short width, unsigned short height) const {
        const winsize size{height, width, 0, 0};
        ASSERT_EQ(ioctl(master.get(), TIOCSWINSZ, &size), 0);
    }

    tk::Fd master{posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC)};
    tk::Fd slave;
    std::map<std::string, std::string> variables{{"TERM", "xterm"}};
};

TEST_F(TerminalTest, KnowsItsSize) {
    resize(132, 50);
    EXPECT_TRUE(seen(slave.get()).isTerminal);
    EXPECT_EQ(seen(slave.get()).width, 132U);
    EXPECT_EQ(seen(slave.get()).height, 50U);
}

TEST_F(TerminalTest, WithoutASizeIsTakenForTheUsualOne) {
    resize(0, 0);
    EXPECT_EQ(seen(slave.get()).width, 80U);
    EXPECT_EQ(seen(slave.get()).height, 24U);
    variables["COLUMNS"] = "100";
    variables["LINES"] = "nonsense";
    EXPECT_EQ(seen(slave.get()).width, 100U);
    EXPECT_EQ(seen(slave.get()).height, 24U);
}

TEST_F(TerminalTest, HasColoursUnlessSomebodySaysNo) {
    EXPECT_TRUE(seen(slave.get()).hasColours);
    variables["NO_COLOR"] = "";
    EXPECT_TRUE(seen(slave.get()).hasColours) << "an empty NO_COLOR says nothing";
    variables["NO_COLOR"] = "1";
    EXPECT_FALSE(seen(slave.get()).hasColours);
    EXPECT_TRUE(seen(slave.get()).hasCursor);
    variables = {{"TERM", "dumb"}};
    EXPECT_FALSE(seen(slave.get()).hasColours);
    EXPECT_FALSE(seen(slave.get()).hasCursor);
    variables = {};
    EXPECT_FALSE(seen(slave.get()).hasColours);
}

TEST_F(TerminalTest, AnythingElseIsPlainAndWithoutLimits) {
    const tk::Fd file(open("/dev/null", O_WRONLY | O_CLOEXEC));
    variables["COLUMNS"] = "40";
    const Terminal terminal = seen(file.get());
    EXPECT_FALSE(terminal.isTerminal);
    EXPECT_FALSE(terminal.hasColours);
    EXPECT_EQ(terminal.width, 0U);
    EXPECT_EQ(terminal.height, 0U);
}

TEST_F(TerminalTest, TheFirstVariableOfTheLocaleDecides) {
    EXPECT_FALSE(seen(slave.get()).isUnicode);
    variables["LANG"] = "en_US.UTF-8";
    EXPECT_TRUE(seen(slave.get()).isUnicode);
    variables["LC_CTYPE"] = "C.utf8";
    EXPECT_TRUE(seen(slave.get()).isUnicode);
    variables["LC_ALL"] = "C";
    EXPECT_FALSE(seen(slave.get()).isUnicode);
    variables["LC_ALL"] = "";
    EXPECT_TRUE(seen(slave.get()).isUnicode);
}

TEST(Terminal, PaintsWhereThereAreColours) {
    Terminal terminal;
    EXPECT_EQ(terminal.paint(Style::bad, "x"), "x");
    terminal.hasColours = true;
    EXPECT_EQ(terminal.paint(Style::bad, "x"), "\x1b[31mx\x1b[0m");
    EXPECT_EQ(terminal.paint(Style::plain, "x"), "x");
    EXPECT_EQ(terminal.render({{{"a"}, {"b", Style::strong}}, {}}), "a\x1b[1mb\x1b[0m\n\n");
}

}  // namespace
}  // namespace ctl
