#include "ctl/table.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

TEST(Table, ColumnsAreAsWideAsTheirWidestCell) {
    Table table({"ID", "NAME", "RUNNING"});
    table.add({"1", "lan0", "yes"});
    table.add({"100", "a-long-name", "no"});
    EXPECT_EQ(table.text(),
              "ID   NAME         RUNNING\n"
              "1    lan0         yes\n"
              "100  a-long-name  no\n");
}

TEST(Table, WithoutRowsShowsItsHeadings) {
    EXPECT_EQ(Table({"ID", "NAME"}).text(), "ID  NAME\n");
}

TEST(Table, AnEmptyCellIsShown) {
    Table table({"A", "B"});
    table.add({"", "x"});
    EXPECT_EQ(table.text(), "A  B\n-  x\n");
}

TEST(Table, CharactersOfSeveralBytesKeepTheColumns) {
    Table table({"A", "B"});
    table.add({"T\xc3\xbcr", "x"});
    EXPECT_EQ(table.text(), "A    B\nT\xc3\xbcr  x\n");
}

TEST(Table, NoCellBreaksALineOrReachesTheTerminal) {
    Table table({"A"});
    table.add({"one\ntwo\x1b[2J"});
    EXPECT_EQ(table.text(), "A\none\\x0atwo\\x1b[2J\n");
}

struct NarrowTable : testing::Test {
    NarrowTable() {
        terminal.isTerminal = true;
        terminal.isUnicode = true;
        table.add({"1", "192.0.2.1:65535", "a long description of it all"});
    }
    std::string within(std::size_t width) {
        terminal.width = width;
        return table.textWithin(terminal);
    }

    Terminal terminal;
    Table table{{"ID", "TO", "DESCRIPTION"}};
};

TEST_F(NarrowTable, KeepsItsTextsWhereThereIsRoom) {
    EXPECT_EQ(within(49), table.text());
}

TEST_F(NarrowTable, ShortensTheTextBeforeTheFigures) {
    EXPECT_EQ(within(40),
              "ID  TO               DESCRIPTION\n"
              "1   192.0.2.1:65535  a long description…\n");
    EXPECT_EQ(within(24),
              "ID  TO          DESCRIP…\n"
              "1   192.0.2.1…  a long …\n");
}

TEST_F(NarrowTable, IsAtLeastReadable) {
    EXPECT_EQ(within(1),
              "ID  TO    DESCRIP…\n"
              "1   192…  a long …\n");
}

TEST_F(NarrowTable, KeepsAColumnWholeThatIsToStay) {
    table.keepWhole("DESCRIPTION");
    EXPECT_EQ(within(36),
              "ID  TO    DESCRIPTION\n"
              "1   192…  a long description of it all\n");
}

TEST_F(NarrowTable, DropsColumnsUntilTheRestFits) {
    terminal.width = 29;
    table.dropToFit(terminal, {"ID", "TO"});
    EXPECT_EQ(within(29),
              "ID  TO               DESCRIP…\n"
              "1   192.0.2.1:65535  a long …\n");
    terminal.width = 28;
    table.dropToFit(terminal, {"ID", "TO"});
    EXPECT_EQ(within(28),
              "TO               DESCRIPTION\n"
              "192.0.2.1:65535  a long des…\n");
}

TEST_F(NarrowTable, EndsACutTextInAsciiWhereTheLocaleIsNoUnicode) {
    terminal.isUnicode = false;
    EXPECT_EQ(within(32),
              "ID  TO               DESCRIPTION\n"
              "1   192.0.2.1:65535  a long des~\n");
}

}  // namespace
}  // namespace ctl
