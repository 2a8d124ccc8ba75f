#include "ctl/nearestword.h"

#include <gtest/gtest.h>

namespace ctl {
namespace {

struct Case {
    const char* name;
    const char* typed;
    const char* nearest;
};
constexpr Case cases[] = {
    {"TheWordItself", "status", "status"}, {"LettersThatChangedPlaces", "stauts", "status"},
    {"ALetterTooFew", "statu", "status"},  {"ALetterTooMany", "statuss", "status"},
    {"AWrongLetter", "stabus", "status"},  {"TwoSlips", "sttuss", "status"},
    {"ThreeSlips", "stttttttt", ""},       {"AShortWord", "nta", "nat"},
    {"NothingOfAShortWord", "xyz", ""},    {"Nothing", "", ""},
    {"TheNearerOfTwo", "watsh", "watch"},
};
class NearestWord : public testing::TestWithParam<Case> {};
TEST_P(NearestWord, IsAsTabled) {
    EXPECT_EQ(nearestWord(GetParam().typed, {"status", "watch", "wash-it", "nat", "set"}),
              GetParam().nearest);
}
INSTANTIATE_TEST_SUITE_P(Words, NearestWord, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(NearestWord, OfAVeryLongWordIsNone) {
    EXPECT_EQ(nearestWord(std::string(100000, 's'), {"status"}), "");
}

}  // namespace
}  // namespace ctl
