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

}  // namespace
}  // namespace ctl
