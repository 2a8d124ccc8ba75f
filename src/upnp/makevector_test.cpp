#include "upnp/makevector.h"

#include <list>

#include <gtest/gtest.h>

namespace gateway {

namespace {

using Texts = std::vector<std::string>;

TEST(MakeVector, TakesTheTextsInOrder) {
    EXPECT_EQ(makeVector(2, "a", "b"), (Texts{"a", "b"}));
}

TEST(MakeVector, CountBelowTheNumberOfTextsDropsTheRest) {
    EXPECT_EQ(makeVector(4, "DSL", "POTS", "Cable", "Ethernet", "Other"),
              (Texts{"DSL", "POTS", "Cable", "Ethernet"}));
    EXPECT_EQ(makeVector(0, "a"), Texts());
}

TEST(MakeVector, NothingMakesAnEmptyOne) {
    EXPECT_EQ(makeVector(0), Texts());
}

TEST(MakeVector, CountAboveTheNumberOfTextsTakesThemAll) {
    EXPECT_EQ(makeVector(3, "a"), Texts{"a"});
}

TEST(MakeContainer, MakesAList) {
    EXPECT_EQ(makeContainer<std::list<std::string>>(1, "a", "b"), (std::list<std::string>{"a"}));
}

}  // namespace

}  // namespace gateway
