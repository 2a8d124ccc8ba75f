#include "http/httptitle.h"

#include <gtest/gtest.h>

namespace {

struct Case {
    const char* name;
    const char* title;
    const char* method;
    const char* path;
};

constexpr Case cases[] = {
    {"Ordinary", "GET /gateway.xml HTTP/1.1", "GET", "/gateway.xml"},
    {"QueryBelongsToThePath", "GET /gateway.xml?a=b HTTP/1.1", "GET", "/gateway.xml?a=b"},
    {"OldProtocol", "GET / HTTP/1.0", "GET", "/"},
    {"WithoutProtocolThePathIsTheRest", "GET /gateway.xml", "GET", "/gateway.xml"},
    {"WithoutBlankTheMethodIsAll", "GET", "GET", ""},
    {"Empty", "", "", ""},
    {"OnlyABlank", " ", "", ""},
    {"ProtocolRightBehindTheMethod", "GET HTTP/1.1", "GET", ""},
    {"FirstProtocolEndsThePath", "GET /a HTTP/b HTTP/1.1", "GET", "/a"},
    {"TwoBlanks", "GET  /a HTTP/1.1", "GET", " /a"},
};

class Title : public testing::TestWithParam<Case> {};

TEST_P(Title, IsCutIntoMethodAndPath) {
    EXPECT_EQ(methodOf(GetParam().title), GetParam().method);
    EXPECT_EQ(pathOf(GetParam().title), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(Titles, Title, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
