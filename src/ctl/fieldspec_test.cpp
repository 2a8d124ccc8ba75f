#include "ctl/fieldspec.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "tk/bus.h"

namespace ctl {
namespace {

tk::message oneOf(const std::string& text) {
    return parseFields({text});
}

TEST(FieldSpec, ReadsEveryType) {
    tk::message expected;
    expected.insert_u32(0xFE0001, 7);
    expected.insert_bool(2, true);
    expected.insert_string(3, "a:b=c");
    expected.insert_be32(4, htonl(0xC0000201));
    expected.insert_u64(5, 4294967296);
    expected.insert_u32_array(6, {20, 5});
    expected.insert_u32_array(7, {});
    EXPECT_EQ(parseFields({"0xFE0001:u32=7", "2:bool=yes", "3:string=a:b=c", "4:be32=192.0.2.1",
                           "5:u64=0x100000000", "6:u32[]=20,5", "7:u32[]="}),
              expected);
}

TEST(FieldSpec, ReadsMessagesAsTheyArePrinted) {
    tk::message inner;
    inner.insert_u32(1, 5);
    tk::message expected;
    expected.insert_message_array(2, {inner, {}});
    EXPECT_EQ(oneOf(R"(2:message[]=[[{"id":"0x1","type":"u32","value":5}],[]])"), expected);
}

TEST(FieldSpec, BoolsMayBeSpeltInThreeWays) {
    EXPECT_TRUE(oneOf("1:bool=1").get_bool(1, false));
    EXPECT_FALSE(oneOf("1:bool=0").get_bool(1, true));
    EXPECT_TRUE(oneOf("1:bool=true").get_bool(1, false));
    EXPECT_FALSE(oneOf("1:bool=no").get_bool(1, true));
    EXPECT_FALSE(oneOf("1:bool=false").get_bool(1, true));
}

struct Case {
    const char* text;
    const char* reason;
};

constexpr Case refused[] = {
    {"", "'': expected FIELD:TYPE=VALUE"},
    {"1", "'1': expected FIELD:TYPE=VALUE"},
    {"1=5", "'1=5': expected FIELD:TYPE=VALUE"},
    {"1=a:b", "'1=a:b': expected FIELD:TYPE=VALUE"},
    {"x:u32=5", "'x:u32=5': the field is a number such as 1 or 0xFE0001"},
    {"1:u16=5", "'1:u16=5': the type is u32, bool, string, be32, u64, u32[] or message[]"},
    {"1:u32=4294967296", "'1:u32=4294967296': a u32 is a number from 0 to 4294967295"},
    {"1:u64=18446744073709551616",
     "'1:u64=18446744073709551616': a u64 is a number from 0 to 18446744073709551615"},
    {"1:bool=2", "'1:bool=2': a bool is yes, no, true, false, 1 or 0"},
    {"1:be32=5", "'1:be32=5': a be32 is an IPv4 address such as 192.0.2.1"},
    {"1:u32[]=5,", "'1:u32[]=5,': a u32[] is numbers with commas between them"},
    {"1:message[]=5",
     R"('1:message[]=5': a message[] is a JSON list such as [[{"id":"0x1","type":"u32","value":5}]])"},
    {"1:message[]=[5]", "'1:message[]=[5]': a message is a list of fields, not 5"},
    {"0xFF0002:u32[]=1", "'0xFF0002:u32[]=1': the bus sets this field itself"},
};

class RefusedField : public testing::TestWithParam<Case> {};
TEST_P(RefusedField, SaysWhatIsWrong) {
    try {
        (void)oneOf(GetParam().text);
        FAIL() << "accepted";
    } catch (const Failure& failure) {
        EXPECT_STREQ(failure.what(), GetParam().reason);
        EXPECT_EQ(failure.status, Status::misuse);
    }
}
INSTANTIATE_TEST_SUITE_P(Texts, RefusedField, testing::ValuesIn(refused));

TEST(FieldSpec, RefusesAFieldThatIsGivenTwice) {
    EXPECT_THROW((void)parseFields({"1:u32=5", "0x1:string=x"}), Failure);
}

TEST(FieldSpec, PrintsWhatItReads) {
    for (const char* text : {"0x1:u32=7", "0x2:bool=true", "0x4:be32=192.0.2.1", "0x5:u64=4294967296",
                             "0x6:u32[]=20,5", "0x7:u32[]="})
        EXPECT_EQ(fieldText(parseField(text)), text);
}

TEST(FieldSpec, PrintsTextsQuotedAndMessagesInBrackets) {
    EXPECT_EQ(fieldText(parseField("3:string=two words\n")), R"(0x3:string="two words\n")");
    tk::message inner = parseFields({"1:u32=5", "2:bool=no"});
    EXPECT_EQ(fieldText({9, std::vector<tk::message>{inner, {}}}),
              "0x9:message[]=[{0x1:u32=5 0x2:bool=false} {}]");
}

TEST(FieldSpec, PrintsOneFieldALineAndIndentsMessages) {
    const tk::message record = parseFields({"0xFE0001:u32=1", "0x10005:string=lan0"});
    tk::message reply = parseFields({"0xFE0003:u32=9"});
    reply.insert_message_array(0xFE0002, {record, {}});
    reply.insert_bool(5, true);
    tk::stamp(reply, {20, 0}, 3, tk::Kind::reply, 1);
    EXPECT_EQ(fieldLines(reply),
              "0xfe0003:u32=9\n"
              "0xfe0002:message[]\n"
              "  - 0xfe0001:u32=1\n"
              "    0x10005:string=\"lan0\"\n"
              "  - (empty)\n"
              "0x5:bool=true\n");
}

TEST(FieldSpec, PrintsNothingForAnEmptyReply) {
    tk::message reply;
    tk::stamp(reply, {20, 0}, 3, tk::Kind::reply, 1);
    EXPECT_EQ(fieldLines(reply), "");
}

}  // namespace
}  // namespace ctl
