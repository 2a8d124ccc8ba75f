#include "tk/message.h"

#include <algorithm>
#include <cstring>
#include <ctime>
#include <limits>
#include <random>
#include <set>

#include <gtest/gtest.h>

namespace tk {
namespace {

using namespace std::string_literals;

message single(const message::Field& field) {
    message one;
    one.insert(field);
    return one;
}

struct Golden {
    const char* name;
    message content;
    std::string flat;
};

std::vector<Golden> golden() {
    const message inner = single({0x01, std::uint32_t{5}});
    return {
        {"U32", single({0x1A3, std::uint32_t{0x11223344}}), "\xA3\x01\0\0\x01\x44\x33\x22\x11"s},
        {"BoolTrue", single({2, true}), "\x02\0\0\0\x02\x01"s},
        {"BoolFalse", single({2, false}), "\x02\0\0\0\x02\0"s},
        {"String", single({3, std::string("ab\0c", 4)}), "\x03\0\0\0\x03\x04\0\0\0ab\0c"s},
        {"StringEmpty", single({3, std::string()}), "\x03\0\0\0\x03\0\0\0\0"s},
        {"U64", single({5, std::uint64_t{0x1122334455667788}}),
         "\x05\0\0\0\x05\x88\x77\x66\x55\x44\x33\x22\x11"s},
        {"U32Array", single({0xFF0001, std::vector<std::uint32_t>{20, 0x01020304}}),
         "\x01\0\xFF\0\x06\x02\0\0\0\x14\0\0\0\x04\x03\x02\x01"s},
        {"U32ArrayEmpty", single({6, std::vector<std::uint32_t>{}}), "\x06\0\0\0\x06\0\0\0\0"s},
        {"MessageArray", single({0xFE0002, std::vector<message>{inner, message()}}),
         "\x02\0\xFE\0\x07\x02\0\0\0\x09\0\0\0\x01\0\0\0\x01\x05\0\0\0\0\0\0\0"s},
        {"MessageArrayEmpty", single({7, std::vector<message>{}}), "\x07\0\0\0\x07\0\0\0\0"s},
        {"Nothing", message(), ""s},
    };
}

/// One field of each type, in one message.
message oneOfEach() {
    message all;
    for (const Golden& row : golden())
        for (const message::Field& field : row.content.fields()) all.insert(field);
    all.insert_be32(4, 0x010200C0);
    return all;
}

class WireForm : public ::testing::TestWithParam<Golden> {};

TEST_P(WireForm, IsByteExact) {
    EXPECT_EQ(GetParam().content.serialise(), GetParam().flat);
}

TEST_P(WireForm, IsReadBack) {
    message read;
    ASSERT_TRUE(message::parse(GetParam().flat, read));
    EXPECT_EQ(read, GetParam().content);
    EXPECT_EQ(message(std::string_view(GetParam().flat)), GetParam().content);
}

INSTANTIATE_TEST_SUITE_P(Types, WireForm, ::testing::ValuesIn(golden()),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(Wire, AddressesStandInNetworkOrder) {
    message address;
    const unsigned char bytes[] = {192, 0, 2, 1};
    std::uint32_t value = 0;
    std::memcpy(&value, bytes, sizeof value);
    address.insert_be32(4, value);
    EXPECT_EQ(address.serialise(), "\x04\0\0\0\x04\xC0\0\x02\x01"s);
    EXPECT_EQ(message(address.serialise()).get_be32(4), value);
}

TEST(Wire, FieldsStandInTheirOrder) {
    message ordered;
    ordered.insert_bool(9, true);
    ordered.insert_bool(1, false);
    EXPECT_EQ(ordered.serialise(), "\x09\0\0\0\x02\x01\x01\0\0\0\x02\0"s);
    EXPECT_EQ(message(ordered.serialise()), ordered);
}

TEST(Wire, SerialiseToAppends) {
    std::string out = "before";
    single({2, true}).serialiseTo(out);
    EXPECT_EQ(out, "before\x02\0\0\0\x02\x01"s);
}

TEST(Wire, OnlyCutsBetweenFieldsAreMessages) {
    const message whole = oneOfEach();
    const std::string flat = whole.serialise();
    std::set<std::size_t> ends{0};
    message front;
    for (const message::Field& field : whole.fields()) {
        front.insert(field);
        ends.insert(front.serialise().size());
    }
    for (std::size_t cut = 0; cut <= flat.size(); ++cut) {
        message read;
        EXPECT_EQ(message::parse(flat.substr(0, cut), read), ends.contains(cut)) << "cut at byte " << cut;
        EXPECT_EQ(read.serialise(), ends.contains(cut) ? flat.substr(0, cut) : "") << "cut at byte " << cut;
    }
}

struct Malformed {
    const char* name;
    std::string flat;
};

const Malformed malformed[] = {
    {"TypeZero", "\x01\0\0\0\0\0\0\0\0"s},
    {"TypeEight", "\x01\0\0\0\x08\0\0\0\0"s},
    {"TypeHighest", "\x01\0\0\0\xFF\0\0\0\0"s},
    {"BoolAboveOne", "\x01\0\0\0\x02\x02"s},
    {"StringLongerThanTheText", "\x01\0\0\0\x03\x03\0\0\0ab"s},
    {"StringOfHighestLength", "\x01\0\0\0\x03\xFF\xFF\xFF\xFF"s},
    {"NumbersBeyondTheText", "\x01\0\0\0\x06\x02\0\0\0\x01\0\0\0"s},
    {"NumbersOfHighestCount", "\x01\0\0\0\x06\xFF\xFF\xFF\xFF\x01\0\0\0"s},
    {"NumbersWhoseBytesOverflow", "\x01\0\0\0\x06\x01\0\0\x40\x01\0\0\0"s},
    {"MessagesBeyondTheText", "\x01\0\0\0\x07\x02\0\0\0\0\0\0\0"s},
    {"MessagesOfHighestCount", "\x01\0\0\0\x07\xFF\xFF\xFF\xFF\0\0\0\0"s},
    {"InnerMessageLongerThanTheText", "\x01\0\0\0\x07\x01\0\0\0\x07\0\0\0\x02\0\0\0\x02\x01"s},
    {"InnerMessageMalformed", "\x01\0\0\0\x07\x01\0\0\0\x06\0\0\0\x02\0\0\0\x02\x02"s},
    {"RepeatedId", "\x01\0\0\0\x02\x01\x01\0\0\0\x02\x01"s},
    {"RepeatedIdOfAnotherType", "\x01\0\0\0\x02\x01\x01\0\0\0\x01\x01\0\0\0"s},
    {"RepeatedIdOutOfOrder", "\x02\0\0\0\x02\x01\x03\0\0\0\x02\x01\x01\0\0\0\x02\x01\x02\0\0\0\x02\x01"s},
    {"RepeatedIdInAnInnerMessage", "\x01\0\0\0\x07\x01\0\0\0\x0C\0\0\0\x02\0\0\0\x02\x01\x02\0\0\0\x02\x01"s},
    {"JunkAtTheEnd", "\x01\0\0\0\x02\x01\0"s},
};

class WireParser : public ::testing::TestWithParam<Malformed> {};

TEST_P(WireParser, RefusesTheMalformedAndLeavesNothing) {
    message read = oneOfEach();
    EXPECT_FALSE(message::parse(GetParam().flat, read));
    EXPECT_TRUE(read.empty());
    EXPECT_TRUE(message(GetParam().flat).empty());
}

INSTANTIATE_TEST_SUITE_P(Bounds, WireParser, ::testing::ValuesIn(malformed),
                         [](const auto& row) { return std::string(row.param.name); });

/// A message with `levels` messages inside one another below it.
message nested(unsigned levels) {
    message top = single({1, true});
    for (unsigned level = 0; level < levels; ++level) top = single({2, std::vector<message>{top}});
    return top;
}

TEST(Wire, NestsSixteenDeepAndNoDeeper) {
    message read;
    EXPECT_TRUE(message::parse(nested(16).serialise(), read));
    EXPECT_EQ(read, nested(16));
    EXPECT_TRUE(nested(16).isParsable());
    EXPECT_FALSE(nested(17).isParsable());
    EXPECT_FALSE(message::parse(nested(17).serialise(), read));
    EXPECT_FALSE(message::parse(nested(200).serialise(), read));
}

TEST(Wire, HoldsAThousandAndTwentyFourFieldsAndNoMore) {
    message full;
    for (std::uint32_t id = 0; id < 1024; ++id) full.insert_bool(id, true);
    message read;
    EXPECT_TRUE(message::parse(full.serialise(), read));
    EXPECT_TRUE(full.isParsable());
    full.insert_bool(1024, true);
    EXPECT_FALSE(full.isParsable());
    EXPECT_FALSE(single({1, std::vector<message>{message(), full}}).isParsable());
    EXPECT_FALSE(message::parse(full.serialise(), read));
}

/// The flat form of a message of bools, with the ids from `count` down to 1.
std::string falling(std::uint32_t count) {
    message bools;
    for (std::uint32_t id = count; id > 0; --id) bools.insert_bool(id, true);
    return bools.serialise();
}

TEST(Wire, FindsARepeatedIdWhereverItStandsAmongMany) {
    const std::string flat = falling(1023);
    message read;
    ASSERT_TRUE(message::parse(flat, read));
    EXPECT_EQ(read.serialise(), flat);
    for (const std::uint32_t id : {1U, 2U, 512U, 1022U, 1023U}) {
        const std::string field = single({id, false}).serialise();
        EXPECT_FALSE(message::parse(flat + field, read)) << "behind the others: " << id;
        EXPECT_FALSE(message::parse(field + flat, read)) << "before the others: " << id;
    }
}

/// The least processor time of several that it takes to read so many messages of so many bools.
std::clock_t readingTime(std::size_t messages, std::uint32_t bools) {
    const std::vector<message> list(messages, message(falling(bools)));
    const std::string flat = single({1, list}).serialise();
    std::clock_t least = std::numeric_limits<std::clock_t>::max();
    for (unsigned round = 0; round < 10; ++round) {
        message read;
        const std::clock_t start = std::clock();
        EXPECT_TRUE(message::parse(flat, read));
        least = std::min(least, std::clock() - start);
    }
    return least;
}

TEST(Wire, AFieldOfALargeMessageIsReadAsFastAsOneOfASmallMessage) {
    // About equal. If each field were searched for among those before it, it would be a matter of ten times and more.
    EXPECT_LT(readingTime(20, 1000), 4 * readingTime(2000, 10));
}

/// The memory of all lists of fields in a message.
std::size_t fieldMemory(const message& read) {
    std::size_t bytes = read.fields().capacity() * sizeof(message::Field);
    for (const message::Field& field : read.fields())
        for (const message& inner : read.get_message_array(field.id)) bytes += fieldMemory(inner);
    return bytes;
}

TEST(Wire, DeepNestingTakesNoMoreMemoryThanItsBytesDeserve) {
    message deep = single({1, std::string(10000, 'x')});
    for (unsigned depth = 0; depth < message::nestingLimit; ++depth)
        deep = single({1, std::vector<message>{deep}});
    const std::string flat = deep.serialise();
    message read;
    ASSERT_TRUE(message::parse(flat, read));
    EXPECT_LT(fieldMemory(read), 12 * flat.size());
}

TEST(Wire, WhatIsReadFromMutatedBytesIsWrittenBackUnchanged) {
    std::mt19937 random(20240607);  // a fixed seed: every run tries the same bytes
    const std::string whole = oneOfEach().serialise();
    int accepted = 0;
    for (unsigned round = 0; round < 50000; ++round) {
        std::string flat = whole;
        for (unsigned change = 0; change <= round % 4; ++change)
            flat[random() % flat.size()] = static_cast<char>(random());
        if (random() % 4 == 0) flat.resize(random() % (flat.size() + 1));
        message read;
        if (!message::parse(flat, read)) continue;
        ++accepted;
        ASSERT_EQ(read.serialise(), flat) << "round " << round;
    }
    EXPECT_GT(accepted, 1000);  // else the loop would try only refusals
    EXPECT_LT(accepted, 49000);
}

}  // namespace
}  // namespace tk
