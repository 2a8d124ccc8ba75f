#include "ctl/json.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "ctl/failure.h"
#include "tk/bus.h"
#include "tk/names.h"

namespace ctl {
namespace {

tk::message everyType() {
    tk::message inner;
    inner.insert_u32(0xFE0001, 3);
    tk::message out;
    out.insert_u32(0xB, 4294967295);
    out.insert_bool(0x1A3, true);
    out.insert_string(0x27, "dstnat");
    out.insert_be32(0x34, htonl(0xC6336401));
    out.insert_u64(5, 18446744073709551615U);
    out.insert_u32_array(6, {20, 5});
    out.insert_message_array(0xFE0002, {inner, {}});
    return out;
}

constexpr const char* everyTypeLine =
    R"([{"id":"0xb","type":"u32","value":4294967295},{"id":"0x1a3","type":"bool","value":true},)"
    R"({"id":"0x27","type":"string","value":"dstnat"},{"id":"0x34","type":"be32","value":"198.51.100.1"},)"
    R"({"id":"0x5","type":"u64","value":18446744073709551615},{"id":"0x6","type":"u32[]","value":[20,5]},)"
    R"({"id":"0xfe0002","type":"message[]","value":[[{"id":"0xfe0001","type":"u32","value":3}],[]]}])";

TEST(Json, FieldsOfEveryTypeInWireOrder) {
    EXPECT_EQ(lineOf(fieldsToJson(everyType())), everyTypeLine);
}

TEST(Json, FieldsComeBackAsTheyWere) {
    EXPECT_EQ(fieldsFromJson(fieldsToJson(everyType())), everyType());
}

TEST(Json, ARequestWithItsRouting) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, {20, 5});
    request.insert_bool(0x1A3, true);
    tk::stamp(request, {80, 0}, 17, tk::Kind::request, 0xFE0005);
    EXPECT_EQ(
        lineOf(toJson(request)),
        R"({"kind":"request","from":[80,0],"to":[20,5],"command":"0xfe0005","number":17,"fields":[)"
        R"({"id":"0xff0001","type":"u32[]","value":[20,5]},{"id":"0x1a3","type":"bool","value":true},)"
        R"({"id":"0xff0002","type":"u32[]","value":[80,0]},{"id":"0xff0003","type":"u32","value":17},)"
        R"({"id":"0xff0005","type":"u32","value":1},{"id":"0xff0007","type":"u32","value":16646149}]})");
}

TEST(Json, AnErrorHasItsCodeAndText) {
    tk::message request;
    request.insert_u32_array(tk::field::destination, {80, 0});
    tk::stamp(request, {1000}, 2, tk::Kind::request, 0xFE0005);
    const Json error = toJson(tk::endOf(request, tk::errorMsg(0xFE0009, "Interface already added")));
    EXPECT_EQ(error["kind"], "error");
    EXPECT_EQ(error["from"], Json({80, 0}));
    EXPECT_EQ(error["to"], Json({1000}));
    EXPECT_EQ(error["code"], "0xfe0009");
    EXPECT_EQ(error["text"], "Interface already added");
    EXPECT_EQ(error["number"], 2);
}

TEST(Json, ANotificationHasNeitherNumberNorDestination) {
    tk::message notification;
    tk::stamp(notification, {20, 0}, 0, tk::Kind::notification, 0x10004);
    EXPECT_EQ(lineOf(toJson(notification)),
              R"({"kind":"notification","from":[20,0],"to":[],"command":"0x10004","fields":[)"
              R"({"id":"0xff0002","type":"u32[]","value":[20,0]},{"id":"0xff0005","type":"u32","value":4},)"
              R"({"id":"0xff0007","type":"u32","value":65540}]})");
}

TEST(Json, LinesAreAsciiWhateverTheTextHolds) {
    EXPECT_EQ(lineOf("T\xc3\xbcr\n\x1b\x7f"), R"("T\u00fcr\n\u001b\u007f")");
    EXPECT_EQ(lineOf("\xff\xc3"), R"("\ufffd\ufffd")");
}

TEST(Json, NumbersAndIdsMayBeTexts) {
    const Json fields =
        Json::parse(R"([{"id":"0x10","type":"u32","value":"0xff"},{"id":2,"type":"u64","value":7}])");
    tk::message expected;
    expected.insert_u32(16, 255);
    expected.insert_u64(2, 7);
    EXPECT_EQ(fieldsFromJson(fields), expected);
}

class MalformedFields : public testing::TestWithParam<const char*> {};
TEST_P(MalformedFields, AreRefusedAsMisuse) {
    try {
        (void)fieldsFromJson(Json::parse(GetParam()));
        FAIL() << "accepted";
    } catch (const Failure& failure) {
        EXPECT_EQ(failure.status, Status::misuse);
    }
}
INSTANTIATE_TEST_SUITE_P(
    Texts, MalformedFields,
    testing::Values(R"({})", R"([5])", R"([{"id":1,"type":"u32"}])", R"([{"id":1,"value":1}])",
                    R"([{"type":"u32","value":1}])", R"([{"id":1,"type":"u33","value":1}])",
                    R"([{"id":1,"type":"u32","value":-1}])", R"([{"id":1,"type":"u32","value":4294967296}])",
                    R"([{"id":1,"type":"u32","value":1.5}])", R"([{"id":1,"type":"bool","value":1}])",
                    R"([{"id":1,"type":"string","value":1}])",
                    R"([{"id":1,"type":"be32","value":"192.0.2"}])", R"([{"id":1,"type":"u32[]","value":5}])",
                    R"([{"id":1,"type":"message[]","value":[5]}])",
                    R"([{"id":1,"type":"u32","value":1},{"id":1,"type":"u32","value":2}])"));

TEST(Json, NestingEndsWhereTheBusEndsIt) {
    const auto nested = [](int depth) {
        Json fields = Json::array();
        for (int i = 1; i < depth; ++i) {
            Json field;
            field["id"] = 1;
            field["type"] = "message[]";
            field["value"] = Json::array({fields});
            fields = Json::array({field});
        }
        return fields;
    };
    EXPECT_NO_THROW((void)fieldsFromJson(nested(16)));
    EXPECT_THROW((void)fieldsFromJson(nested(17)), Failure);
}

}  // namespace
}  // namespace ctl
