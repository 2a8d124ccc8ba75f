// Which addresses an interface has, and which one it uses.

#include "tracking/testing/trackingfixture.h"

namespace gateway {

namespace {

using Addresses = TrackingTest;

tk::message deletedRecord(std::uint32_t id, bool disabled = false) {
    tk::message record;
    record.insert_u32(0xFE0001, id);
    record.insert_bool(0xFE000A, disabled);
    record.insert_u32(0xFE0013, 1);
    return record;
}

TEST_F(Addresses, ADeviceTakesTheSmallestOfTheAddressesItStartsWith) {
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    tracking.applyAddress(addressRecord(2, "10.0.0.2", 7));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.2");
}

TEST_F(Addresses, AreOrderedAsNumbersNotAsBytesInMemory) {
    tracking.applyAddress(addressRecord(1, "10.0.1.2", 7));
    tracking.applyAddress(addressRecord(2, "10.0.0.5", 7));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, AnAddedLowerAddressDoesNotDisplaceTheOneInUse) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    takeLog();
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    tracking.applyAddress(addressRecord(2, "10.0.0.2", 7));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
    EXPECT_EQ(takeLog(),
              "dev: 7 add address: 10.0.0.5 (1)\ndev: 7 ip: 10.0.0.5\ndev: 7 add address: 10.0.0.2 (2)\n");
    tracking.applyAddress(deletedRecord(1));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.2");
    EXPECT_EQ(takeLog(), "dev: 7 remove address: 10.0.0.5 (1)\ndev: 7 ip: 10.0.0.2\n");
}

TEST_F(Addresses, RemovingTheLastOneLeavesNone) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    takeLog();
    tracking.applyAddress(deletedRecord(1));
    EXPECT_EQ(tracking.deviceOf(7)->address, 0u);
    EXPECT_EQ(takeLog(), "dev: 7 remove address: 10.0.0.5 (1)\ndev: 7 ip: 0.0.0.0\n");
}

TEST_F(Addresses, ADisabledOneIsTrackedButNotUsed) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7, true));
    EXPECT_EQ(tracking.deviceOf(7)->address, 0u);
    takeLog();
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7, false));  // known: a change
    EXPECT_EQ(takeLog(), "dev: 7 set address: 10.0.0.5 (1)\ndev: 7 ip: 10.0.0.5\n");
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7, true));
    EXPECT_EQ(tracking.deviceOf(7)->address, 0u);
}

TEST_F(Addresses, ADisabledOneIsNotUsedByAnInterfaceThatComesLater) {
    tracking.applyAddress(addressRecord(1, "10.0.0.2", 7, true));
    tracking.applyAddress(addressRecord(2, "10.0.0.5", 7));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
    EXPECT_EQ(tracking.deviceOf(7)->addresses.size(), 1u);
}

TEST_F(Addresses, ADeletedRecordThatIsDisabledOrUnknownChangesNothing) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    takeLog();
    tracking.applyAddress(deletedRecord(1, true));
    tracking.applyAddress(deletedRecord(2));
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, AChangeMovesAnAddressToAnotherInterface) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.deviceChanged(interfaceRecord(8, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    takeLog();
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 8));
    EXPECT_EQ(takeLog(), "dev: 8 set address: 10.0.0.5 (1)\ndev: 8 ip: 10.0.0.5\ndev: 7 ip: 0.0.0.0\n");
    EXPECT_TRUE(tracking.deviceOf(7)->addresses.empty());
    EXPECT_EQ(dotted(tracking.deviceOf(8)), "10.0.0.5");
}

TEST_F(Addresses, AChangeOfTheAddressItselfDropsTheOldOne) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    takeLog();
    tracking.applyAddress(addressRecord(1, "10.0.0.9", 7));
    EXPECT_EQ(takeLog(), "dev: 7 set address: 10.0.0.9 (1)\ndev: 7 ip: 10.0.0.9\n");
    EXPECT_EQ(tracking.deviceOf(7)->addresses.size(), 1u);
}

TEST_F(Addresses, AChangeKeepsWhatItsRecordLacks) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    takeLog();
    tk::message bare;
    bare.insert_u32(0xFE0001, 1);
    tracking.applyAddress(bare);
    EXPECT_EQ(takeLog(), "dev: 7 set address: 10.0.0.5 (1)\n");
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, TheInterfaceIsReadFromField10WhereField5IsAbsent) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tk::message record = addressRecord(1, "10.0.0.5", 0);
    record.remove(5);
    record.insert_u32(10, 7);
    tracking.applyAddress(record);
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, OfAnUnknownInterfaceWaitForIt) {
    tracking.applyAddress(addressRecord(1, "10.0.0.5", 7));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, AreWalkedWhenAMessageCarriesNone) {
    loop.bus.answer({20, 1}, 0xFE0004, carrying({addressRecord(1, "10.0.0.5", 7)}));
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.updateAddresses({});
    tracking.updateAddresses(carrying({}));  // an empty array has no records either
    const auto walks = loop.bus.requestsTo({20, 1}, 0xFE0004);
    ASSERT_EQ(walks.size(), 2u);
    tk::message query;
    query.insert_u32_array(0xFF0001, {20, 1});
    query.insert_u32(0xFF0007, 0xFE0004);
    EXPECT_EQ(walks[0].content, query);
    EXPECT_EQ(walks[0].timeout, 6000u);
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, ThatAWalkMissesAreForgottenButStayInTheirDevicesSets) {
    tracking.deviceChanged(interfaceRecord(7, "lo"));
    tracking.updateAddresses(carrying({addressRecord(1, "10.0.0.5", 7), addressRecord(2, "10.0.0.6", 7)}));
    loop.bus.answer({20, 1}, 0xFE0004, carrying({addressRecord(2, "10.0.0.6", 7)}));
    tracking.updateAddresses({});
    EXPECT_EQ(tracking.deviceOf(7)->addresses.size(), 2u);
    takeLog();
    tracking.applyAddress(deletedRecord(1));  // forgotten, so unknown by now
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(dotted(tracking.deviceOf(7)), "10.0.0.5");
}

TEST_F(Addresses, AnInternalInterfaceMovesWithItsAddress) {
    Device* device = addDevice(7, Role::internal, "127.0.0.1");
    ASSERT_TRUE(device->isStarted());
    tracking.applyAddress(addressRecord(71, "127.0.0.2", 7));
    takeLog();
    tracking.applyAddress(deletedRecord(70));
    EXPECT_EQ(takeLog(),
              "dev: 7 remove address: 127.0.0.1 (70)\ndev: 7 ip: 127.0.0.2\nstop int: if7\nsendAdverts\n"
              "intr: 0 2130706434\nstart int: if7 127.0.0.2\nsendAdverts\n");
    EXPECT_TRUE(device->isStarted());
    tracking.applyAddress(deletedRecord(71));
    EXPECT_FALSE(device->isStarted());
    EXPECT_EQ(takeLog(),
              "dev: 7 remove address: 127.0.0.2 (71)\ndev: 7 ip: 0.0.0.0\nstop int: if7\nsendAdverts\n");
}

TEST_F(Addresses, TheFirstAddressStartsAnInternalInterface) {
    Device* device = addDevice(7, Role::internal);
    EXPECT_FALSE(device->isStarted());
    EXPECT_EQ(takeLog(), "add dev: if7\nset type: 2 7\nintr: 0 0\n");
    tracking.applyAddress(addressRecord(70, "127.0.0.1", 7));
    EXPECT_TRUE(device->isStarted());
}

TEST_F(Addresses, AnExternalInterfaceReportsItsNewAddress) {
    Device* device = addDevice(7, Role::external, "198.51.100.1");
    tracking.applyAddress(addressRecord(71, "198.51.100.9", 7));
    takeLog();
    tracking.applyAddress(deletedRecord(70));
    EXPECT_EQ(
        takeLog(),
        "dev: 7 remove address: 198.51.100.1 (70)\ndev: 7 ip: 198.51.100.9\nset external ip 198.51.100.9\n");
    EXPECT_EQ(device->ipConnection->getVar("ExternalIPAddress"), "198.51.100.9");
}

TEST_F(Addresses, WhileUpnpIsOffAnAddressIsStoredAndNothingStarts) {
    host.enabled = false;
    Device* device = addDevice(7, Role::internal);
    tracking.applyAddress(addressRecord(70, "127.0.0.1", 7));
    EXPECT_EQ(dotted(device), "127.0.0.1");
    EXPECT_FALSE(device->isStarted());
}

}  // namespace

}  // namespace gateway
