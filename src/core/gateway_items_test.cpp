// The "upnp interface" items over the bus.

#include <filesystem>

#include "core/testing/gatewayfixture.h"

namespace gateway {

namespace {

class Items : public GatewayTest {
protected:
    void SetUp() override {
        GatewayTest::SetUp();
        if (!captures) return;
        start();
        set(settings(true));
        takeLog();
    }
    std::uint32_t addedId(const tk::message& reply) {
        EXPECT_FALSE(tk::isError(reply)) << tk::getError(reply);
        return reply.get_u32(0xFE0001);
    }
    static std::string errorOf(const tk::message& reply) {
        std::uint32_t code = 0;
        std::string text;
        return tk::isError(reply, &code, &text) ? std::to_string(code) + " " + text : "";
    }
    std::vector<tk::message> all() { return loop.request(0xFE0004, {}).get_message_array(0xFE0002); }
};

tk::message record(std::uint32_t id, std::uint32_t interface, std::uint32_t type, bool disabled = false) {
    tk::message values;
    values.insert_u32(0xFE0001, id);
    values.insert_bool(0xFE000A, disabled);
    values.insert_u32(1, interface);
    values.insert_u32(2, type);
    return values;
}

TEST_F(Items, StartTheirRoleWhenAdded) {
    EXPECT_EQ(addedId(add(item(1, 2))), 1u);
    EXPECT_EQ(takeLog(), "intr: 0 2130706433\nstart int: lan 127.0.0.1\nsendAdverts\n");
    EXPECT_EQ(addedId(add(item(2, 1))), 2u);
    EXPECT_EQ(takeLog(), "start ext: wan\ninitial external addr: 198.51.100.1\nsendAdverts\n");
    EXPECT_EQ(all(), (std::vector<tk::message>{record(1, 1, 2), record(2, 2, 1)}));
}

TEST_F(Items, AreRefusedForAnInterfaceThatHasOne) {
    add(item(1, 2));
    takeLog();
    EXPECT_EQ(errorOf(add(item(1, 1))), "16646153 Interface already added");  // 0xFE0009
    EXPECT_EQ(all().size(), 1u);
    EXPECT_EQ(takeLog(), "");
}

TEST_F(Items, ForAnUnknownInterfaceAreAcceptedAndStartNothing) {
    EXPECT_EQ(addedId(add(item(9, 2))), 1u);
    EXPECT_EQ(takeLog(), "");
    tk::message arrived = interfaceRecord(9, "lo", "late");
    loop.notify({20, 0}, 0x10004, arrived);
    EXPECT_EQ(takeLog(), "add dev: late\nset type: 2 9\nintr: 0 0\n");
}

TEST_F(Items, AreOnePerInterfaceWhateverTheStoreHolds) {
    stop();
    {
        tk::Store store(folder.file("store/upnp"), 1);
        ASSERT_TRUE(store.set(3, item(1, 2)).isOk());
        ASSERT_TRUE(store.set(4, item(1, 1)).isOk());
        ASSERT_TRUE(store.set(5, item(2, 1)).isOk());
    }
    takeLog();
    start();
    EXPECT_TRUE(takeLog().starts_with("upnp interface 4 dropped: Interface already added\nadd dev: lan\n"));
    EXPECT_EQ(all(), (std::vector<tk::message>{record(3, 1, 2), record(5, 2, 1)}));
    EXPECT_EQ(sockets(), 2u);
    removeItem(3);
    EXPECT_EQ(sockets(), 0u);
    start();  // and it does not come back
    EXPECT_EQ(all(), std::vector<tk::message>{record(5, 2, 1)});
}

TEST_F(Items, ThatAreDisabledStartNothing) {
    addedId(add(item(1, 2, true)));
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(sockets(), 0u);
}

TEST_F(Items, ThatAreDisabledStillGiveTheirRoleToAnInterfaceThatArrives) {
    add(item(9, 1, true));
    loop.notify({20, 0}, 0x10004, interfaceRecord(9, "lo", "late"));
    EXPECT_EQ(takeLog(), "add dev: late\nset type: 1 9\nstart ext: late\ninitial external addr: 0.0.0.0\n");
}

TEST_F(Items, RestartTheirRoleWithEveryEdit) {
    add(item(1, 2));
    takeLog();
    EXPECT_EQ(errorOf(change(1, item(1, 2))), "");
    EXPECT_EQ(takeLog(),
              "stop int: lan\nsendAdverts\nintr: 0 2130706433\nstart int: lan 127.0.0.1\nsendAdverts\n");
}

TEST_F(Items, ChangeTheirRole) {
    add(item(1, 2));
    takeLog();
    tk::message onlyType;
    onlyType.insert_u32(2, 1);
    change(1, onlyType);  // what is not given stays
    EXPECT_EQ(takeLog(), "stop int: lan\nsendAdverts\nstart ext: lan\ninitial external addr: 127.0.0.1\n");
    EXPECT_EQ(all(), std::vector<tk::message>{record(1, 1, 1)});
}

TEST_F(Items, ThatGetDisabledStopTheirInterfaceAndLeaveItWithoutRole) {
    add(item(1, 2));
    takeLog();
    change(1, item(1, 2, true));
    EXPECT_EQ(takeLog(), "stop int: lan\nsendAdverts\n");
    EXPECT_EQ(sockets(), 0u);
    set(settings(false));
    set(settings(true));
    EXPECT_EQ(all(), std::vector<tk::message>{record(1, 1, 2, true)});
}

TEST_F(Items, ThatAreDisabledLeaveNoRoleThatAnAddressCouldStart) {
    add(item(1, 2));
    change(1, item(1, 2, true));
    takeLog();
    loop.notify({20, 1}, 0xFE000B, carrying({addressRecord(11, "127.0.0.2", 1)}));
    tk::message gone = addressRecord(10, "127.0.0.1", 1);
    gone.insert_u32(0xFE0013, 1);
    loop.notify({20, 1}, 0xFE000B, carrying({gone}));
    EXPECT_EQ(
        takeLog(),
        "dev: 1 add address: 127.0.0.2 (11)\ndev: 1 remove address: 127.0.0.1 (10)\ndev: 1 ip: 127.0.0.2\n");
    EXPECT_EQ(sockets(), 0u);
}

TEST_F(Items, AreKeptInTheirOwnStore) {
    add(item(1, 2));
    EXPECT_TRUE(folder.has("store/upnp"));
}

TEST_F(Items, ThatCannotBeStoredAreRefusedBeforeAnythingStarts) {
    std::filesystem::create_directory(folder.file("store/upnp.new"));
    EXPECT_NE(errorOf(add(item(1, 2))), "");
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(sockets(), 0u);
    EXPECT_TRUE(all().empty());
}

TEST_F(Items, WhoseFileCannotBePutInPlaceTakeBackWhatTheyStarted) {
    std::filesystem::create_directory(folder.file("store/upnp"));  // where the file would be
    EXPECT_NE(errorOf(add(item(1, 2))), "");
    EXPECT_EQ(sockets(), 0u);
    EXPECT_EQ(takeLog(),
              "intr: 0 2130706433\nstart int: lan 127.0.0.1\nsendAdverts\nstop int: lan\nsendAdverts\n");
    EXPECT_TRUE(all().empty());
}

TEST_F(Items, WhoseMoveCannotBePutInPlaceGoBackToTheirInterface) {
    add(item(1, 2));
    std::filesystem::remove(folder.file("store/upnp"));
    std::filesystem::create_directory(folder.file("store/upnp"));
    takeLog();
    EXPECT_NE(errorOf(change(1, item(2, 1))), "");
    EXPECT_EQ(
        takeLog(),
        "stop int: lan\nsendAdverts\nstart ext: wan\ninitial external addr: 198.51.100.1\nstop ext: wan\n"
        "intr: 0 2130706433\nstart int: lan 127.0.0.1\nsendAdverts\n");
    EXPECT_EQ(all(), std::vector<tk::message>{record(1, 1, 2)});
}

TEST_F(Items, WhoseRemovalCannotBePutInPlaceKeepTheirRole) {
    add(item(1, 2));
    std::filesystem::remove(folder.file("store/upnp"));
    std::filesystem::create_directory(folder.file("store/upnp"));
    takeLog();
    EXPECT_NE(errorOf(removeItem(1)), "");
    EXPECT_EQ(takeLog(),
              "stop int: lan\nsendAdverts\nintr: 0 2130706433\nstart int: lan 127.0.0.1\nsendAdverts\n");
    EXPECT_EQ(all(), std::vector<tk::message>{record(1, 1, 2)});
}

TEST_F(Items, MoveToAnotherInterface) {
    add(item(1, 1));
    takeLog();
    change(1, item(2, 1));
    EXPECT_EQ(takeLog(), "stop ext: lan\nstart ext: wan\ninitial external addr: 198.51.100.1\n");
}

TEST_F(Items, MayNotMoveToAnInterfaceThatAnotherOneHas) {
    add(item(1, 2));
    add(item(2, 1));
    takeLog();
    EXPECT_EQ(errorOf(change(1, item(2, 2))), "16646153 Interface already set");
    EXPECT_EQ(takeLog(), "");
    EXPECT_EQ(all(), (std::vector<tk::message>{record(1, 1, 2), record(2, 2, 1)}));
}

TEST_F(Items, StopTheirRoleWhenRemoved) {
    add(item(1, 2));
    add(item(2, 1));
    takeLog();
    EXPECT_EQ(errorOf(removeItem(2)), "");
    EXPECT_EQ(takeLog(), "stop ext: wan\nsendAdverts\n");
    EXPECT_EQ(errorOf(removeItem(1)), "");
    EXPECT_EQ(takeLog(), "stop int: lan\nsendAdverts\n");
    EXPECT_TRUE(all().empty());
}

TEST_F(Items, ThatAreUnknownCannotBeReadChangedOrRemoved) {
    tk::message nine;
    nine.insert_u32(0xFE0001, 9);
    EXPECT_EQ(errorOf(loop.request(0xFE0002, nine)), "16646148 no such object");
    EXPECT_EQ(errorOf(change(9, item(1, 2))), "16646148 no such object");
    EXPECT_EQ(errorOf(removeItem(9)), "16646148 no such object");
}

TEST_F(Items, AreTakenWhileUpnpIsOffAndStartWithIt) {
    set(settings(false));
    add(item(1, 2));
    takeLog();
    set(settings(true));
    EXPECT_NE(takeLog().find("start int: lan 127.0.0.1\n"), std::string::npos);
    EXPECT_EQ(sockets(), 2u);
}

TEST_F(Items, SurviveARestart) {
    add(item(1, 2));
    add(item(2, 1, true));
    removeItem(1);
    start();
    EXPECT_EQ(all(), std::vector<tk::message>{record(2, 2, 1, true)});
}

TEST_F(Items, AreCalledUpnpInterfaceInTheUndoHistory) {
    EXPECT_EQ(DevObj().getName(), "upnp interface");
    add(item(1, 2));
    const auto undo = loop.bus.requestsTo({24}, 0xFE0005);
    ASSERT_FALSE(undo.empty());
    EXPECT_EQ(undo.back().content.get_string(3), "upnp interface added");
}

}  // namespace

}  // namespace gateway
