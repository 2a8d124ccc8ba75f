#include "contract/natrules.h"

#include <arpa/inet.h>

#include <vector>

#include <gtest/gtest.h>

#include "tk/names.h"

namespace contract {
namespace {

NatRule rule(std::uint32_t id = 0) {
    return {id, true, false, {::inet_addr("198.51.100.1"), 17, 80}, {::inet_addr("192.0.2.2"), 8080}};
}

using Fields = std::vector<tk::message::Field>;

const Fields madeOf = {
    {0xFE0007, true},
    {0xFE000A, false},
    {39, "dstnat"},
    {419, true},
    {52, tk::Be32{::inet_addr("198.51.100.1")}},
    {53, tk::Be32{::inet_addr("198.51.100.1")}},
    {406, true},
    {9, std::uint32_t{80}},
    {10, std::uint32_t{80}},
    {404, true},
    {11, std::uint32_t{17}},
    {40, std::uint32_t{22}},
    {1006, true},
    {1000, tk::Be32{::inet_addr("192.0.2.2")}},
    {1001, tk::Be32{::inet_addr("192.0.2.2")}},
    {1007, true},
    {1002, std::uint32_t{8080}},
    {1003, std::uint32_t{8080}},
};

TEST(NatRule, IsMadeByARequestOfAllItsFieldsInTheirOrder) {
    EXPECT_EQ(rule().toMessage().fields(), madeOf);
}

TEST(NatRule, ARecordBeginsWithTheId) {
    Fields expected = madeOf;
    expected.insert(expected.begin(), {0xFE0001, std::uint32_t{7}});
    EXPECT_EQ(rule(7).toMessage().fields(), expected);
}

TEST(NatRule, ARecordOfADynamicRuleEndsWithItsOwner) {
    NatRule owned = rule(7);
    owned.owner = 1003;
    EXPECT_EQ(owned.toMessage().fields().back(), (tk::message::Field{1102, std::uint32_t{1003}}));
    EXPECT_EQ(NatRule::fromMessage(owned.toMessage()), owned);
}

TEST(NatTraffic, IsAddedToARecordAndReadFromIt) {
    const NatTraffic traffic{12, 5000000000};
    tk::message record = rule(7).toMessage();
    EXPECT_EQ(NatTraffic::fromMessage(record), NatTraffic());
    traffic.addTo(record);
    const Fields& fields = record.fields();
    EXPECT_EQ(Fields(fields.end() - 2, fields.end()),
              (Fields{{1100, std::uint64_t{12}}, {1101, std::uint64_t{5000000000}}}));
    EXPECT_EQ(NatTraffic::fromMessage(record), traffic);
    EXPECT_EQ(NatRule::fromMessage(record), rule(7));
}

TEST(NatRule, IsChangedByARequestThatNamesItsTarget) {
    EXPECT_EQ(rule(7).toChange().fields(), (Fields{{0xFE0001, std::uint32_t{7}},
                                                   {0xFE000A, false},
                                                   {1000, tk::Be32{::inet_addr("192.0.2.2")}},
                                                   {1001, tk::Be32{::inet_addr("192.0.2.2")}},
                                                   {1002, std::uint32_t{8080}},
                                                   {1003, std::uint32_t{8080}}}));
}

TEST(NatRule, IsAskedAboutWithTheFewestFields) {
    EXPECT_EQ(rule().toQuestion().fields(), (Fields{{0xFE0007, true},
                                                    {0xFE000A, false},
                                                    {39, "dstnat"},
                                                    {52, tk::Be32{::inet_addr("198.51.100.1")}},
                                                    {9, std::uint32_t{80}},
                                                    {11, std::uint32_t{17}},
                                                    {40, std::uint32_t{22}},
                                                    {1000, tk::Be32{::inet_addr("192.0.2.2")}},
                                                    {1002, std::uint32_t{8080}}}));
}

TEST(NatRule, ReadsBackFromItsRecord) {
    NatRule disabled = rule(7);
    disabled.dynamic = false;
    disabled.disabled = true;
    for (const NatRule& source : {rule(), rule(7), disabled})
        EXPECT_EQ(NatRule::fromMessage(source.toMessage()), source);
    EXPECT_EQ(NatRule::fromMessage({}), NatRule());
}

TEST(NatRule, AChangeKeepsWhatItDoesNotName) {
    EXPECT_EQ(rule(7).changedBy({}), rule(7));
    tk::message change;
    change.insert_u32(tk::field::objectId, 8);
    change.insert_bool(tk::field::dynamic, false);
    change.insert_bool(tk::field::disabled, true);
    change.insert_u32(rulefield::toPortFirst, 81);
    NatRule expected = rule(7);
    expected.disabled = true;
    expected.target.port = 81;
    EXPECT_EQ(rule(7).changedBy(change), expected);
}

TEST(NatKey, GoesByAddressThenProtocolThenPort) {
    const std::vector<NatKey> ordered = {{1, 6, 80}, {1, 6, 81}, {1, 17, 1}, {2, 6, 1}};
    for (std::size_t i = 1; i < ordered.size(); ++i) EXPECT_LT(ordered[i - 1], ordered[i]);
}

}  // namespace
}  // namespace contract
