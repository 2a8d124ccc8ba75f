#include "ctl/reportwriter.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

using doctor::Severity;

TEST(ReportText, SaysWhatWhyAndHowToMend) {
    EXPECT_EQ(reportText({{"no-address",
                           Severity::error,
                           "wan0",
                           "wan0 has no address.",
                           "It needs one.",
                           {"ip address add ADDRESS dev wan0", "# or wait"}},
                          {"port-shared", Severity::note, "UDP 1900", "Shared.", "Both listen.", {}}}),
              "error: wan0 has no address.\n"
              "  It needs one.\n"
              "  Mend:\n"
              "    ip address add ADDRESS dev wan0\n"
              "    # or wait\n"
              "\n"
              "note: Shared.\n"
              "  Both listen.\n"
              "\n"
              "1 problem, 0 warnings\n");
}

TEST(ReportText, WithoutProblemsSaysSo) {
    EXPECT_EQ(reportText({}), "Nothing found that would keep mappings from working.\n");
}

TEST(ReportText, WithoutASightOfEverythingThereIsNoAllClear) {
    EXPECT_EQ(reportText({{"not-seen", Severity::note, "x", "Not seen.", "Why.", {}}}),
              "note: Not seen.\n  Why.\n\nNothing found, but not everything could be looked at.\n");
}

TEST(ReportText, TextFromTheNetworkCannotSteerTheTerminal) {
    const std::string text = reportText({{"x", Severity::warning, "x", "a\x1b[2J", "b\nc", {"d\r"}}});
    EXPECT_EQ(text,
              "warning: a\\x1b[2J\n  b\\x0ac\n  Mend:\n    d\\x0d\n\n"
              "0 problems, 1 warning\n");
}

TEST(ReportText, HasColoursOnlyWhereTheyShow) {
    Terminal terminal;
    terminal.isTerminal = terminal.hasColours = true;
    EXPECT_NE(reportText({}, terminal).find("\x1b["), std::string::npos);
    EXPECT_EQ(reportText({}).find("\x1b["), std::string::npos);
}

}  // namespace
}  // namespace ctl
