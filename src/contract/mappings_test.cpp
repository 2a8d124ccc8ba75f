#include "contract/mappings.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

#include "tk/names.h"

namespace contract {
namespace {

MappingRecord mapping() {
    return {7, 2, 80, 6, ::inet_addr("192.0.2.2"), 8080, true, "web", ::inet_addr("192.0.2.3"), 1767323045};
}

MappingRefusal refusal() {
    return {1767323045, ::inet_addr("192.0.2.3"), 80, 17, ::inet_addr("192.0.2.2"), 8080, 718, "it is taken",
            3};
}

TEST(MappingRecord, ComesBackAsItWasSent) {
    EXPECT_EQ(MappingRecord::fromMessage(mapping().toMessage()), mapping());
}

TEST(MappingRecord, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u32(0xFE0001, 7);
    expected.insert_u32(1, 2);
    expected.insert_u32(2, 80);
    expected.insert_u32(3, 6);
    expected.insert_be32(4, ::inet_addr("192.0.2.2"));
    expected.insert_u32(5, 8080);
    expected.insert_bool(6, true);
    expected.insert_string(7, "web");
    expected.insert_be32(8, ::inet_addr("192.0.2.3"));
    expected.insert_u64(9, 1767323045);
    EXPECT_EQ(mapping().toMessage(), expected);
}

TEST(MappingRecord, ReadsWhatIsMissingAsNothing) {
    EXPECT_EQ(MappingRecord::fromMessage({}), MappingRecord());
}

TEST(MappingRefusal, ComesBackAsItWasSent) {
    EXPECT_EQ(MappingRefusal::fromMessage(refusal().toMessage()), refusal());
}

TEST(MappingRefusal, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u64(1, 1767323045);
    expected.insert_be32(2, ::inet_addr("192.0.2.3"));
    expected.insert_u32(3, 80);
    expected.insert_u32(4, 17);
    expected.insert_be32(5, ::inet_addr("192.0.2.2"));
    expected.insert_u32(6, 8080);
    expected.insert_u32(7, 718);
    expected.insert_string(8, "it is taken");
    expected.insert_u32(9, 3);
    EXPECT_EQ(refusal().toMessage(), expected);
}

TEST(MappingRefusal, ReadsWhatIsMissingAsNothingThatCameOnce) {
    EXPECT_EQ(MappingRefusal::fromMessage({}), MappingRefusal());
}

}  // namespace
}  // namespace contract
