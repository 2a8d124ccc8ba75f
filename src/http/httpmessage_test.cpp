#include "http/httpmessage.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

using Texts = std::vector<std::string>;

TEST(HTTPMessageParse, StartLineAndEmptyLineAreComplete) {
    const HTTPMessage message("GET / HTTP/1.1\r\n\r\n");
    EXPECT_TRUE(message.complete);
    EXPECT_EQ(message.title, "GET / HTTP/1.1");
    EXPECT_EQ(message.names, Texts());
    EXPECT_EQ(message.body, "");
}

TEST(HTTPMessageParse, BlanksAfterTheColonAreSkipped) {
    const HTTPMessage message("T\r\nA:1\r\nB: 2\r\nC:    3\r\n\r\n");
    EXPECT_EQ(message.values, (Texts{"1", "2", "3"}));
    EXPECT_TRUE(message.complete);
}

TEST(HTTPMessageParse, TabAfterTheColonStays) {
    EXPECT_EQ(HTTPMessage("T\r\nA:\t1\r\n\r\n").get("A"), "\t1");
    EXPECT_EQ(HTTPMessage("T\r\nA: \t1\r\n\r\n").get("A"), "\t1");
}

TEST(HTTPMessageParse, TrailingWhiteSpaceIsKept) {
    EXPECT_EQ(HTTPMessage("T\r\nA: 1 \t\r\n\r\n").get("A"), "1 \t");
}

TEST(HTTPMessageParse, ValueOfOnlyBlanksIsEmpty) {
    const HTTPMessage message("T\r\nA:   \r\nB:\r\n\r\n");
    EXPECT_EQ(message.values, (Texts{"", ""}));
    EXPECT_TRUE(message.complete);
}

TEST(HTTPMessageParse, ValueMayHoldColons) {
    EXPECT_EQ(HTTPMessage("T\r\nA: b:c\r\n\r\n").get("A"), "b:c");
}

TEST(HTTPMessageParse, NamesAreUpperCasedButNotTrimmed) {
    const HTTPMessage message("T\r\ncontent-Length : 3\r\n soapAction: x\r\n:y\r\n\r\n");
    EXPECT_EQ(message.names, (Texts{"CONTENT-LENGTH ", " SOAPACTION", ""}));
    EXPECT_TRUE(message.complete);
}

TEST(HTTPMessageParse, BytesBeyondAsciiStayAsTheyAre) {
    EXPECT_EQ(HTTPMessage("T\r\n\xe4\xff: 1\r\n\r\n").names, (Texts{"\xe4\xff"}));
}

TEST(HTTPMessageParse, LowerCaseContentLengthDecidesExactly) {
    const std::string head = "POST / HTTP/1.1\r\ncontent-length: 3\r\n\r\n";
    EXPECT_FALSE(HTTPMessage(head).complete);
    EXPECT_FALSE(HTTPMessage(head + "ab").complete);
    EXPECT_TRUE(HTTPMessage(head + "abc").complete);
    EXPECT_FALSE(HTTPMessage(head + "abcd").complete);
}

TEST(HTTPMessageParse, BodyIsKeptWhetherCompleteOrNot) {
    EXPECT_EQ(HTTPMessage("T\r\nCONTENT-LENGTH: 3\r\n\r\na\r\n\r\n").body, "a\r\n\r\n");
    EXPECT_EQ(HTTPMessage("T\r\n\r\nrest").body, "rest");
}

TEST(HTTPMessageParse, FirstOfTwoContentLengthsCounts) {
    EXPECT_TRUE(HTTPMessage("T\r\nCONTENT-LENGTH: 1\r\nCONTENT-LENGTH: 2\r\n\r\na").complete);
    EXPECT_FALSE(HTTPMessage("T\r\nCONTENT-LENGTH: 1\r\nCONTENT-LENGTH: 2\r\n\r\nab").complete);
}

TEST(HTTPMessageParse, ContentLengthIsTheNumberAtTheStart) {
    EXPECT_TRUE(HTTPMessage("T\r\nCONTENT-LENGTH: 2x\r\n\r\nab").complete);
    EXPECT_TRUE(HTTPMessage("T\r\nCONTENT-LENGTH: many\r\n\r\n").complete);
    EXPECT_TRUE(HTTPMessage("T\r\nCONTENT-LENGTH:\r\n\r\n").complete);
    EXPECT_FALSE(HTTPMessage("T\r\nCONTENT-LENGTH: 4294967296\r\n\r\n").complete);
    EXPECT_FALSE(HTTPMessage("T\r\nCONTENT-LENGTH: -1\r\n\r\na").complete);
}

TEST(HTTPMessageParse, HeaderLineWithoutColonEndsIncomplete) {
    const HTTPMessage message("T\r\nA: 1\r\nnonsense\r\nB: 2\r\n\r\n");
    EXPECT_FALSE(message.complete);
    EXPECT_EQ(message.names, Texts{"A"});
    EXPECT_EQ(message.body, "");
}

TEST(HTTPMessageParse, HeadersThatHaveNotAllArrivedKeepWhatWasRead) {
    const HTTPMessage message("T\r\nA: 1\r\nB: 2");
    EXPECT_FALSE(message.complete);
    EXPECT_EQ(message.title, "T");
    EXPECT_EQ(message.names, Texts{"A"});
    EXPECT_EQ(message.values, Texts{"1"});
    EXPECT_EQ(message.body, "");
}

TEST(HTTPMessageParse, WithoutACarriageReturnNothingIsRead) {
    for (const char* text : {"", "GET / HTTP/1.1", "GET / HTTP/1.1\n\nA: 1\n\n"}) {
        const HTTPMessage message(text);
        EXPECT_FALSE(message.complete);
        EXPECT_EQ(message.title, "");
    }
}

TEST(HTTPMessageParse, ByteAfterACarriageReturnIsIgnored) {
    const HTTPMessage message("T\rxA: 1\ryB: 2\rz\r?body");
    EXPECT_EQ(message.title, "T");
    EXPECT_EQ(message.names, (Texts{"A", "B"}));
    EXPECT_EQ(message.values, (Texts{"1", "2"}));
    EXPECT_EQ(message.body, "body");
    EXPECT_TRUE(message.complete);
}

TEST(HTTPMessageParse, LoneCarriageReturnAtTheEndGivesAnEmptyBody) {
    const HTTPMessage message("T\r\nA: 1\r\n\r");
    EXPECT_TRUE(message.complete);
    EXPECT_EQ(message.body, "");
    EXPECT_FALSE(HTTPMessage("T\r").complete);
    EXPECT_FALSE(HTTPMessage("T\r\nA: 1\r").complete);
}

TEST(HTTPMessageParse, EmptyTitleIsATitle) {
    EXPECT_TRUE(HTTPMessage("\r\n\r\n").complete);
    EXPECT_EQ(HTTPMessage("\r\n\r\n").title, "");
}

TEST(HTTPMessageParse, CompletesOnlyWithTheLastByte) {
    const std::string request = "POST /upnp/control/osinfo HTTP/1.1\r\nContent-Length: 3\r\n\r\nabc";
    for (std::size_t cut = 0; cut < request.size(); ++cut)
        EXPECT_FALSE(HTTPMessage(request.substr(0, cut)).complete) << "cut at byte " << cut;
    EXPECT_TRUE(HTTPMessage(request).complete);
}

TEST(HTTPMessageParse, ZeroBytesAreBytesLikeAnyOther) {
    const std::string text("T\r\nA: x\0y\r\n\r\n\0", 14);
    EXPECT_EQ(HTTPMessage(text).get("A"), std::string("x\0y", 3));
    EXPECT_EQ(HTTPMessage(text).body, std::string("\0", 1));
}

TEST(HTTPMessageParse, TakesLinearTime) {
    // With quadratic cost this would take minutes.
    std::string text = "T\r\n";
    for (int i = 0; i < 200000; ++i) text += "A: 1\r\n";
    text += "\r\n" + std::string(1000000, ' ');
    EXPECT_EQ(HTTPMessage(text).names.size(), 200000U);
    EXPECT_EQ(HTTPMessage("T\r\nA:" + std::string(1000000, ' ') + "1\r\n\r\n").get("A"), "1");
}

TEST(HTTPMessageHeaders, LookupsIgnoreTheCaseOfNames) {
    HTTPMessage message("T\r\nSoapAction: x\r\n\r\n");
    for (const char* name : {"SOAPACTION", "soapaction", "SoapAction"}) {
        EXPECT_TRUE(message.has(name));
        EXPECT_EQ(message.get(name), "x");
    }
    EXPECT_FALSE(message.has("SOAPACTIO"));
    EXPECT_FALSE(message.has("SOAPACTIONS"));
}

TEST(HTTPMessageHeaders, LookupsSeeTheFirstOfDuplicates) {
    HTTPMessage message(200);
    message.add("a", "1");
    message.add("A", "2");
    EXPECT_EQ(message.get("a"), "1");
    EXPECT_EQ(message.names, (Texts{"A", "A"}));
}

TEST(HTTPMessageHeaders, AbsentAndEmptyReadAlike) {
    HTTPMessage message(200);
    message.add("Ext", "");
    EXPECT_EQ(message.get("ext"), "");
    EXPECT_TRUE(message.has("ext"));
    EXPECT_EQ(message.get("st"), "");
    EXPECT_FALSE(message.has("st"));
}

TEST(HTTPMessageHeaders, DateIsInUniversalTime) {
    HTTPMessage message(200);
    message.addDate(784111777);
    EXPECT_EQ(message.get("DATE"), "Sun, 06 Nov 1994 08:49:37 GMT");
}

TEST(HTTPMessageHeaders, DateOfZeroIsNow) {
    HTTPMessage before(200), now(200), after(200);
    before.addDate(std::time(nullptr));
    now.addDate(0);
    after.addDate(std::time(nullptr));
    EXPECT_TRUE(now.get("DATE") == before.get("DATE") || now.get("DATE") == after.get("DATE"));
}

struct StatusCase {
    int code;
    const char* title;
};

TEST(HTTPMessageResponse, TitleHasTheReasonOfItsStatus) {
    constexpr StatusCase cases[] = {
        {200, "HTTP/1.1 200 OK"},
        {400, "HTTP/1.1 400 Bad Request"},
        {404, "HTTP/1.1 404 Not Found"},
        {412, "HTTP/1.1 412 Precondition Failed"},
        {500, "HTTP/1.1 500 Internal Server Error"},
        {501, "HTTP/1.1 501 Not Implemented"},
        {302, "HTTP/1.1 302 "},
    };
    for (const StatusCase& row : cases) EXPECT_EQ(HTTPMessage(row.code).title, row.title);
}

TEST(HTTPMessageResponse, IsCompleteAndEmpty) {
    const HTTPMessage message(400);
    EXPECT_TRUE(message.complete);
    EXPECT_EQ(message.toString(), "HTTP/1.1 400 Bad Request\r\n\r\n");
}

TEST(HTTPMessageResponse, IsWrittenInOrderWithUpperCaseNames) {
    HTTPMessage message(200);
    message.add("Content-Length", "4");
    message.add("ext", "");
    message.body = "body";
    EXPECT_EQ(message.toString(), "HTTP/1.1 200 OK\r\nCONTENT-LENGTH: 4\r\nEXT: \r\n\r\nbody");
}

TEST(HTTPMessageResponse, SurvivesARoundTripOverTheWire) {
    HTTPMessage message(200);
    message.add("Content-Length", "4");
    message.body = "body";
    const HTTPMessage received(message.toString());
    EXPECT_TRUE(received.complete);
    EXPECT_EQ(received.toString(), message.toString());
}

struct TitleCase {
    const char* name;
    const char* title;
    const char* method;
    const char* path;
};

constexpr TitleCase titles[] = {
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

class Title : public testing::TestWithParam<TitleCase> {};

TEST_P(Title, IsCutIntoMethodAndPath) {
    EXPECT_EQ(methodOf(GetParam().title), GetParam().method);
    EXPECT_EQ(pathOf(GetParam().title), GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(Titles, Title, testing::ValuesIn(titles),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace

}  // namespace gateway
