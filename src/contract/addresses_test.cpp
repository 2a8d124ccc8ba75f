#include "contract/addresses.h"

#include <arpa/inet.h>

#include <gtest/gtest.h>

namespace contract {
namespace {

const std::uint32_t someAddress = ::inet_addr("192.0.2.1");

TEST(AddressRecord, ComesBackAsItWasSent) {
    const AddressRecord record{7, someAddress, 3, true, true};
    EXPECT_EQ(AddressRecord::fromMessage(record.toMessage()), record);
    EXPECT_EQ(AddressRecord::fromMessage(AddressRecord().toMessage()), AddressRecord());
}

TEST(AddressRecord, TravelsInTheseFields) {
    tk::message expected;
    expected.insert_u32(0xFE0001, 7);
    expected.insert_be32(1, someAddress);
    expected.insert_u32(5, 3);
    expected.insert_bool(0xFE000A, false);
    AddressRecord record{7, someAddress, 3, false, false};
    EXPECT_EQ(record.toMessage().serialise(), expected.serialise());
    expected.insert_u32(0xFE0013, 1);
    record.isDeleted = true;
    EXPECT_EQ(record.toMessage().serialise(), expected.serialise());
}

TEST(AddressRecord, TellsAnAbsentAddressFromAnyOther) {
    for (const char* text : {"0.0.0.0", "1.0.0.0", "255.255.255.255"}) {
        tk::message record;
        record.insert_be32(1, ::inet_addr(text));
        EXPECT_EQ(AddressRecord::fromMessage(record).address, ::inet_addr(text)) << text;
    }
    EXPECT_EQ(AddressRecord::fromMessage({}).address, std::nullopt);
}

TEST(AddressRecord, TheActualInterfaceServesWhereNoOtherIsTold) {
    tk::message record;
    record.insert_u32(10, 7);
    EXPECT_EQ(AddressRecord::fromMessage(record).interface, 7U);
    record.insert_u32(5, 3);
    EXPECT_EQ(AddressRecord::fromMessage(record).interface, 3U);
}

}  // namespace
}  // namespace contract
