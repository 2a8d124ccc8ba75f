// Rules as nft shows them, and what they do with packets of mapped connections.

#include "doctor/nftables.h"

#include <gtest/gtest.h>

#include "doctor/testing/fates.h"
#include "doctor/walk.h"

namespace doctor {
namespace {

/// A table with a chain at forward whose only rule ends in drop.
std::string tableWith(const std::string& expressions, const std::string& policy = "accept") {
    return R"({"nftables":[{"metainfo":{}},{"table":{"family":"inet","name":"filter","handle":1}},)"
           R"({"set":{"family":"inet","name":"few","table":"filter","type":"ipv4_addr","handle":4,"elem":)"
           R"(["192.0.2.2",{"prefix":{"addr":"10.0.0.0","len":8}}]}},)"
           R"({"set":{"family":"inet","name":"none","table":"filter","type":"ipv4_addr","handle":5}},)"
           R"({"map":{"family":"inet","name":"ways","table":"filter","type":"ifname","map":"verdict",)"
           R"("elem":[["wan0",{"jump":{"target":"sub"}}]]}},)"
           R"({"limit":{"family":"inet","name":"above","table":"filter","rate":10,"per":"second","inv":true}},)"
           R"({"limit":{"family":"inet","name":"within","table":"filter","rate":10,"per":"second"}},)"
           R"({"quota":{"family":"inet","name":"plenty","table":"filter","bytes":100,"used":5,"inv":true}},)"
           R"({"quota":{"family":"inet","name":"spent","table":"filter","bytes":100,"used":101,"inv":true}},)"
           R"({"chain":{"family":"inet","table":"filter","name":"sub","handle":1}},)"
           R"({"chain":{"family":"inet","table":"filter","name":"forward","handle":2,"type":"filter",)"
           R"("hook":"forward","prio":0,"policy":")" +
           policy +
           R"("}},{"rule":{"family":"inet","table":"filter","chain":"sub","handle":7,"expr":)"
           R"([{"counter":{"packets":12,"bytes":720}},{"drop":null}]}},)"
           R"({"rule":{"family":"inet","table":"filter","chain":"forward","handle":8,"expr":[)" +
           expressions + "]}}]}";
}

Outcome outcomeOf(const std::string& json, const Packet& packet, bool setsAreKnown = true) {
    const auto table = readNftTable(json, {}, setsAreKnown);
    EXPECT_TRUE(table.isOk()) << table.reason();
    if (!table.isOk()) return {};
    return walk(*table, "forward", packet, !table->setsMarks);
}

struct Case {
    const char* name;
    const char* expressions;  // of the rule, as JSON
    Fate request;
    Fate reply;
};
constexpr Case cases[] = {
    {"Drop", R"({"drop":null})", Fate::drops, Fate::drops},
    {"Reject", R"({"reject":{"type":"icmp"}})", Fate::drops, Fate::drops},
    {"InInterface", R"({"match":{"op":"==","left":{"meta":{"key":"iifname"}},"right":"wan0"}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"InterfacesThatBeginSo",
     R"({"match":{"op":"==","left":{"meta":{"key":"oifname"}},"right":"lan*"}},{"drop":null})", Fate::drops,
     Fate::passes},
    {"NotTheInterface",
     R"({"match":{"op":"!=","left":{"meta":{"key":"iif"}},"right":{"set":["wan0","wan1"]}}},{"drop":null})",
     Fate::passes, Fate::drops},
    {"NewState",
     R"({"match":{"op":"in","left":{"ct":{"key":"state"}},"right":["new","invalid"]}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"StateNotEstablished",
     R"({"match":{"op":"!=","left":{"ct":{"key":"state"}},"right":{"set":["established","related"]}}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"StatusDnat", R"({"match":{"op":"in","left":{"ct":{"key":"status"}},"right":"dnat"}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"StatusUnderMask",
     R"({"match":{"op":"==","left":{"&":[{"ct":{"key":"status"}},["snat","dnat"]]},"right":"dnat"}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"StatusWithoutDnat",
     R"({"match":{"op":"==","left":{"&":[{"ct":{"key":"status"}},"dnat"]},"right":0}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"WholeStatus", R"({"match":{"op":"!=","left":{"ct":{"key":"status"}},"right":"dnat"}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"VerdictMapOfStates",
     R"({"vmap":{"key":{"ct":{"key":"state"}},"data":{"set":[["established",{"accept":null}],["new",{"drop":null}]]}}})",
     Fate::drops, Fate::passes},
    {"NamedVerdictMap", R"({"vmap":{"key":{"meta":{"key":"iifname"}},"data":"@ways"}})", Fate::drops,
     Fate::passes},
    {"Destination",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"daddr"}},"right":{"prefix":{"addr":"192.0.2.0","len":24}}}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"SourceOfCertainHosts",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":{"range":["192.0.2.0","192.0.2.9"]}}},{"drop":null})",
     Fate::passes, Fate::drops},
    {"SourceOtherThanCertainHosts",
     R"({"match":{"op":"!=","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":"@few"}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"SourceInHalfOfTheInternet",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":{"prefix":{"addr":"0.0.0.0","len":1}}}},{"drop":null})",
     Fate::doubtful, Fate::passes},
    {"SourceInTheWholeInternet",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":{"prefix":{"addr":"0.0.0.0","len":0}}}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"EmptySet",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":"@none"}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"Port",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"tcp","field":"dport"}},"right":{"set":[22,{"range":[8000,8080]}]}}},{"drop":null})",
     Fate::drops, Fate::passes},
    {"PortOfAnotherProtocol",
     R"({"match":{"op":"!=","left":{"payload":{"protocol":"udp","field":"dport"}},"right":53}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"PortOfAnyProtocol",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"th","field":"sport"}},"right":8080}},{"drop":null})",
     Fate::passes, Fate::drops},
    {"Protocol",
     R"({"match":{"op":"==","left":{"meta":{"key":"l4proto"}},"right":{"set":["tcp","udp"]}}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"OtherProtocol",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"icmp","field":"type"}},"right":"echo-request"}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"Ip6",
     R"({"match":{"op":"==","left":{"payload":{"protocol":"ip6","field":"daddr"}},"right":"::1"}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"Family", R"({"match":{"op":"==","left":{"meta":{"key":"protocol"}},"right":"ip"}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"OriginalPort",
     R"({"match":{"op":"==","left":{"ct":{"key":"proto-dst","dir":"original"}},"right":80}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"Direction", R"({"match":{"op":"==","left":{"ct":{"key":"direction"}},"right":"reply"}},{"drop":null})",
     Fate::passes, Fate::drops},
    {"NoMarkAnywhere", R"({"match":{"op":"==","left":{"meta":{"key":"mark"}},"right":5}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"MarkOfAnotherRule",
     R"({"mangle":{"key":{"ct":{"key":"mark"}},"value":5}},{"match":{"op":"==","left":{"meta":{"key":"mark"}},"right":5}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"NotABareSyn",
     R"({"match":{"op":"!=","left":{"&":[{"payload":{"protocol":"tcp","field":"flags"}},["syn","ack","fin","rst"]]},"right":"syn"}},{"drop":null})",
     Fate::passes, Fate::drops},
    {"AboveALimit", R"({"limit":{"rate":5,"burst":5,"per":"second","inv":true}},{"drop":null})", Fate::passes,
     Fate::passes},
    {"WithinALimit", R"({"limit":{"rate":5,"burst":5,"per":"second"}},{"drop":null})", Fate::drops,
     Fate::drops},
    {"AboveANamedLimit", R"({"limit":"above"},{"drop":null})", Fate::passes, Fate::passes},
    {"WithinANamedLimit", R"({"limit":"within"},{"drop":null})", Fate::drops, Fate::drops},
    {"ALimitThatIsNotDeclared", R"({"limit":"nosuch"},{"drop":null})", Fate::doubtful, Fate::doubtful},
    {"ALimitFromAMap",
     R"({"limit":{"map":{"key":{"payload":{"protocol":"tcp","field":"dport"}},"data":{"set":[[80,"above"]]}}}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"AboveAQuota", R"({"quota":{"val":100,"val_unit":"mbytes","inv":true}},{"drop":null})", Fate::passes,
     Fate::passes},
    {"WithinAQuota", R"({"quota":{"val":100,"val_unit":"mbytes"}},{"drop":null})", Fate::drops, Fate::drops},
    {"AboveAQuotaThatIsUsedUp",
     R"({"quota":{"val":1,"val_unit":"mbytes","used":1025,"used_unit":"kbytes","inv":true}},{"drop":null})",
     Fate::drops, Fate::drops},
    {"AboveANamedQuota", R"({"quota":"plenty"},{"drop":null})", Fate::passes, Fate::passes},
    {"AboveANamedQuotaThatIsUsedUp", R"({"quota":"spent"},{"drop":null})", Fate::drops, Fate::drops},
    {"MeterAboveALimit",
     R"({"meter":{"key":{"payload":{"protocol":"ip","field":"saddr"}},"stmt":{"limit":{"rate":10,"burst":5,"per":"second","inv":true}},"size":65535,"name":"m1"}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"MeterWithSomethingElse",
     R"({"meter":{"key":{"payload":{"protocol":"ip","field":"saddr"}},"stmt":{"quota":{"val":5,"val_unit":"bytes"}},"name":"m"}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"UnknownStatement", R"({"tproxy":{"port":5}},{"drop":null})", Fate::doubtful, Fate::doubtful},
    {"LogAndNotrack", R"({"log":{"prefix":"x"}},{"notrack":null},{"drop":null})", Fate::drops, Fate::drops},
    {"LocalDestination",
     R"({"match":{"op":"==","left":{"fib":{"result":"type","flags":["daddr"]}},"right":"local"}},{"drop":null})",
     Fate::passes, Fate::passes},
    {"UnknownMatch", R"({"match":{"op":"==","left":{"meta":{"key":"hour"}},"right":"12:00"}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"UnknownExtension", R"({"xt":{"type":"match","name":"geoip"}},{"drop":null})", Fate::doubtful,
     Fate::doubtful},
    {"Concatenation",
     R"({"match":{"op":"==","left":{"concat":[{"meta":{"key":"iifname"}},{"meta":{"key":"oifname"}}]},"right":{"set":[{"concat":["a","b"]}]}}},{"drop":null})",
     Fate::doubtful, Fate::doubtful},
    {"Queue", R"({"queue":{"num":5}})", Fate::doubtful, Fate::doubtful},
    {"Jump", R"({"jump":{"target":"sub"}})", Fate::drops, Fate::drops},
    {"OnlyALog", R"({"log":{"prefix":"x"}})", Fate::passes, Fate::passes},
    {"Continue", R"({"continue":null},{"drop":null})", Fate::drops, Fate::drops},
};
class NftRule : public testing::TestWithParam<Case> {};
TEST_P(NftRule, DoesAsTabled) {
    const std::string json = tableWith(GetParam().expressions);
    EXPECT_EQ(fateOf(outcomeOf(json, webFlow().request())), GetParam().request);
    EXPECT_EQ(fateOf(outcomeOf(json, webFlow().reply())), GetParam().reply);
}
INSTANTIATE_TEST_SUITE_P(Matches, NftRule, testing::ValuesIn(cases),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(NftTable, APolicyOfDropDropsWhatNoRuleAccepts) {
    constexpr const char* established =
        R"({"match":{"op":"in","left":{"ct":{"key":"state"}},"right":"established"}},{"accept":null})";
    const Outcome request = outcomeOf(tableWith(established, "drop"), webFlow().request());
    EXPECT_TRUE(request.isDropped());
    EXPECT_EQ(request.drop->rule, "");
    EXPECT_EQ(fateOf(outcomeOf(tableWith(established, "drop"), webFlow().reply())), Fate::passes);
}

TEST(NftTable, AnUncertainAcceptBeforeAPolicyOfDropIsNoAllClear) {
    constexpr const char* uncertain = R"({"xt":{"type":"match","name":"geoip"}},{"accept":null})";
    EXPECT_EQ(fateOf(outcomeOf(tableWith(uncertain, "drop"), webFlow().request())), Fate::doubtful);
}

TEST(NftTable, TheCounterOfTheRuleThatDropsIsKept) {
    const Outcome outcome = outcomeOf(tableWith(R"({"jump":{"target":"sub"}})"), webFlow().request());
    ASSERT_TRUE(outcome.drop);
    EXPECT_EQ(outcome.drop->chain, "sub");
    EXPECT_EQ(outcome.drop->packets, 12U);
}

TEST(NftTable, ASetThatWasNotReadMakesItsRuleUncertain) {
    constexpr const char* blocked =
        R"({"match":{"op":"==","left":{"payload":{"protocol":"ip","field":"saddr"}},"right":"@few"}},{"drop":null})";
    EXPECT_EQ(fateOf(outcomeOf(tableWith(blocked), webFlow().request(), /*setsAreKnown=*/false)),
              Fate::doubtful);
}

TEST(NftTable, AFlowtableIsSeenWhereTheConnectionGetsThere) {
    constexpr const char* offload =
        R"({"match":{"op":"in","left":{"ct":{"key":"state"}},"right":"established"}},{"flow":{"op":"add","flowtable":"@fast"}})";
    EXPECT_EQ(outcomeOf(tableWith(offload), webFlow().request()).flowtable, std::nullopt);
    EXPECT_EQ(outcomeOf(tableWith(offload), webFlow().reply()).flowtable, "@fast");
}

TEST(NftTable, RulesHaveTheirTextsByHandle) {
    const RuleTexts texts = readRuleTexts(
        "table inet filter { # handle 1\n"
        "\tchain forward { # handle 2\n"
        "\t\ttype filter hook forward priority filter; policy drop;\n"
        "\t\tct state new counter packets 3 bytes 4 drop # handle 8\n"
        "\t}\n}\n");
    EXPECT_EQ(texts, (RuleTexts{{8, "ct state new counter packets 3 bytes 4 drop"}}));
    const auto table = readNftTable(tableWith(R"({"drop":null})"), texts);
    ASSERT_TRUE(table.isOk());
    EXPECT_EQ(table->chains.at("forward").rules.at(0).text, "ct state new counter packets 3 bytes 4 drop");
}

TEST(NftTable, WhatIsNoRulesetIsRefused) {
    for (const char* text :
         {"", "{}", "[]", "nonsense", R"({"nftables":[{"rule":{}}]})", R"({"nftables":[{"table":5}]})",
          R"({"nftables":[{"rule":{"chain":"x","expr":[{"match":{}}]}}]})",
          R"({"nftables":[{"rule":{"chain":"x","expr":[5]}}]})"})
        EXPECT_FALSE(readNftTable(text, {}).isOk()) << text;
}

TEST(NftTable, ACutTextIsRefused) {
    const std::string whole = tableWith(R"({"drop":null})");
    for (std::size_t cut = 0; cut < whole.size(); ++cut)
        EXPECT_FALSE(readNftTable(whole.substr(0, cut), {}).isOk()) << "cut at byte " << cut;
    EXPECT_TRUE(readNftTable(whole, {}).isOk());
}

}  // namespace
}  // namespace doctor
