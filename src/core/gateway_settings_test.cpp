// The three settings and the routing of notifications.

#include "core/testing/gatewayfixture.h"
#include "tk/store.h"

namespace gateway {

namespace {

class Settings : public GatewayTest {
protected:
    void SetUp() override {
        GatewayTest::SetUp();
        if (captures) start();
    }
};

TEST_F(Settings, AreOffTrueTrueAtFirst) {
    EXPECT_EQ(get(), settings(false, true, true));
}

TEST_F(Settings, AreWhatGetAnswersWhateverItsArgument) {
    tk::message one;
    one.insert_u32(0xFE0001, 1);
    EXPECT_EQ(loop.request(0xFE000D, one), settings(false));
    one.insert_u32(0xFE0001, 0xFFFFFFFF);
    EXPECT_EQ(loop.request(0xFE0002, one), settings(false));  // the object of that id
}

TEST_F(Settings, SwitchOnAndOff) {
    EXPECT_EQ(set(settings(true)), tk::message());
    EXPECT_EQ(takeLog(),
              "add dev: lan\nadd dev: wan\nenable\ndev: 1 add address: 127.0.0.1 (10)\ndev: 1 ip: 127.0.0.1\n"
              "dev: 2 add address: 198.51.100.1 (20)\ndev: 2 ip: 198.51.100.1\n");
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), -1);  // the leave request is withdrawn
    set(settings(false));
    EXPECT_EQ(takeLog(), "disable\n");
    EXPECT_EQ(loop.looper.runner().untilNextTimer(), 10000);
}

TEST_F(Settings, KeepWhatARequestLacks) {
    set(settings(true, false, false));
    tk::message partial;
    partial.insert_bool(2, true);
    set(partial);
    EXPECT_EQ(get(), settings(true, true, false));
}

TEST_F(Settings, AreStoredAsReceivedSoWhatARequestLackedIsTheDefaultAfterARestart) {
    set(settings(true, false, false));
    tk::message partial;
    partial.insert_bool(2, false);
    set(partial);
    start();
    EXPECT_EQ(get(), settings(false, false, true));
}

TEST_F(Settings, AreWrittenToldAndRecordedEvenWhenNothingChanges) {
    loop.bus.posted.clear();
    loop.bus.requests.clear();
    tk::message request = settings(false);
    set(request);
    ASSERT_EQ(loop.bus.posted.size(), 2u);
    const tk::message& notification = loop.bus.posted[0];
    tk::message record = settings(false);
    tk::message told;
    told.insert_u32(0xFE0001, 0xFFFFFFFF);
    for (const auto& field : record.fields()) told.insert(field);
    EXPECT_EQ(notification.get_message_array(0xFE0002), std::vector<tk::message>{told});
    EXPECT_EQ(notification.get_u32(0xFF0007), 0xFE000Bu);
    EXPECT_EQ(notification.get_u32_array(0xFF0002), (tk::Path{80, 0}));

    const auto undo = loop.bus.requestsTo({24}, 0xFE0005);
    ASSERT_EQ(undo.size(), 1u);
    tk::message inverse;
    inverse.insert_u32(0xFF0007, 0xFE000E);
    for (const auto& field : settings(false).fields()) inverse.insert(field);
    EXPECT_EQ(undo[0].content.get_message_array(2), std::vector<tk::message>{inverse});
    EXPECT_EQ(undo[0].content.get_string(3), "upnp config changed");
    EXPECT_TRUE(folder.has("store/upnpm"));
    EXPECT_TRUE(loop.bus.requestsTo({20, 0}, 1).empty());  // not switched: nothing is queried
}

TEST_F(Settings, AreToldAsTheyWereReceived) {
    loop.bus.posted.clear();
    tk::message partial;
    partial.insert_bool(2, false);
    set(partial);
    ASSERT_FALSE(loop.bus.posted.empty());
    tk::message told;
    told.insert_u32(0xFE0001, 0xFFFFFFFF);
    told.insert_bool(2, false);
    EXPECT_EQ(loop.bus.posted[0].get_message_array(0xFE0002), std::vector<tk::message>{told});
}

TEST_F(Settings, AreReadOnlyFromAStoreOfRevision5) {
    for (const std::uint32_t revision : {4u, 5u}) {
        stop();
        ASSERT_TRUE(
            tk::Store(folder.file("store/upnpm"), revision).set(0, settings(false, false, false)).isOk());
        start();
        EXPECT_EQ(get(), revision == 5 ? settings(false, false, false) : settings(false)) << revision;
    }
    EXPECT_TRUE(folder.has("store/upnpm.damaged"));
}

TEST_F(Settings, RecordTheValuesBeforeTheChangeAsTheUndo) {
    set(settings(true, false, false));
    const auto undo = loop.bus.requestsTo({24}, 0xFE0005);
    ASSERT_EQ(undo.size(), 1u);
    const tk::message& inverse = undo[0].content.get_message_array(2).at(0);
    EXPECT_FALSE(inverse.get_bool(1, true));
    EXPECT_TRUE(inverse.get_bool(2, false));
    EXPECT_TRUE(inverse.get_bool(3, false));
}

TEST_F(Settings, ThatCannotBeWrittenAreRefusedAndChangeNothing) {
    folder.write("store", "a file where the folder would be");
    const tk::message reply = set(settings(true));
    EXPECT_EQ(tk::getError(reply), folder.file("store/upnpm") + ": Not a directory");
    EXPECT_EQ(get(), settings(false));
    EXPECT_EQ(takeLog(), "");
}

TEST_F(Settings, ThatAreDamagedAreKeptAsideAndTheDefaultsHold) {
    set(settings(true));
    folder.write("store/upnpm", folder.read("store/upnpm").substr(0, 20));
    start();
    EXPECT_EQ(get(), settings(false));
    EXPECT_TRUE(folder.has("store/upnpm.damaged"));
}

/// What a control point sees of the external interface's service.
class ExternalSettings : public Settings {
protected:
    void SetUp() override {
        Settings::SetUp();
        if (!captures) return;
        add(item(1, 2));
        add(item(2, 1));
        set(settings(true));
    }
    std::string query(const std::string& variable) {
        const std::string body =
            "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>"
            "<u:QueryStateVariable><u:varName>" +
            variable + "</u:varName></u:QueryStateVariable></s:Body></s:Envelope>";
        return post(body, "urn:schemas-upnp-org:control-1-0#QueryStateVariable");
    }
    std::string call(const std::string& action, const std::string& arguments = {}) {
        return post("<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" +
                        action + ">" + arguments + "</u:" + action + "></s:Body></s:Envelope>",
                    "x#" + action);
    }
    /// The first entry of the mapping table, as a control point lists it.
    std::string firstEntry() {
        return call("GetGenericPortMappingEntry", "<NewPortMappingIndex>0</NewPortMappingIndex>");
    }
    std::string post(const std::string& body, const std::string& soapAction);
    std::string exchange(const std::string& request) { return loop.exchangeOverTcp(2828, request); }
};

std::string ExternalSettings::post(const std::string& body, const std::string& soapAction) {
    return exchange(
        "POST /upnp/control/wanipconn-2 HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\nCONTENT-TYPE: text/xml\r\n"
        "SOAPACTION: \"" +
        soapAction + "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

TEST_F(ExternalSettings, ReachTheServicesOfExternalInterfaces) {
    EXPECT_NE(query("PortMappingNumberOfEntries").find("<return>0</return>"), std::string::npos);
    set(settings(true, false, false));
    EXPECT_NE(call("ForceTermination").find("<errorCode>501</errorCode>"), std::string::npos);
    set(settings(true, true, true));
    EXPECT_NE(query("PortMappingNumberOfEntries").find("<return>1</return>"), std::string::npos);
    EXPECT_NE(call("RequestConnection").find("RequestConnectionResponse"), std::string::npos);
}

TEST_F(ExternalSettings, OfTheDummyEntryReachANewServiceOnlyWithTheNextChange) {
    set(settings(true, true, false));
    // A new service object, which shows the dummy entry whatever the setting is.
    change(2, item(2, 1));
    set(settings(true, true, true));
    EXPECT_NE(query("PortMappingNumberOfEntries").find("<return>0</return>"), std::string::npos);
    set(settings(true, true, false));
    set(settings(true, true, true));
    EXPECT_NE(query("PortMappingNumberOfEntries").find("<return>1</return>"), std::string::npos);
}

TEST_F(ExternalSettings, SwitchedOffDropTheSubscriptionsOfTheSystemService) {
    const auto renew = [this](const std::string& headers) {
        return exchange("SUBSCRIBE /upnp/event/osinfo HTTP/1.1\r\nHOST: 127.0.0.1\r\n" + headers + "\r\n");
    };
    const HTTPMessage subscribed(renew("NT: upnp:event\r\nCALLBACK: <http://127.0.0.1:9/>\r\n"));
    const std::string sid = "SID: " + subscribed.get("SID") + "\r\n";
    EXPECT_EQ(HTTPMessage(renew(sid)).title, "HTTP/1.1 200 OK");
    set(settings(false));
    set(settings(true));
    EXPECT_EQ(renew(sid), "HTTP/1.1 412 Precondition Failed\r\n\r\n");
}

TEST_F(ExternalSettings, AreToldBeforeTheirUndoIsRecorded) {
    loop.bus.posted.clear();
    std::size_t toldBefore = 0;
    loop.bus.onRequest = [&](const auto& request) {
        if (request.content.get_u32_array(0xFF0001) == tk::Path{24}) toldBefore = loop.bus.posted.size();
    };
    set(settings(true));
    loop.bus.onRequest = nullptr;
    EXPECT_EQ(toldBefore, 1u);
}

TEST_F(ExternalSettings, OfTheDummyEntryDoNotHideItInANewServiceUntilTheNextChange) {
    const std::string listed =
        "<NewPortMappingDescription>Dummy inactive rule for windows to work</NewPortMappingDescription>";
    set(settings(true, true, false));
    EXPECT_NE(firstEntry().find("<errorCode>713</errorCode>"), std::string::npos);
    change(2, item(2, 1));  // a new service object
    EXPECT_NE(firstEntry().find(listed), std::string::npos);
    set(settings(true, false, false));  // another setting changes
    EXPECT_NE(firstEntry().find("<errorCode>713</errorCode>"), std::string::npos);
}

using Notifications = Settings;

TEST_F(Notifications, GoByCommandAndSender) {
    set(settings(true));
    takeLog();
    loop.notify({20, 0}, 0x10004, interfaceRecord(3, "lo", "new"));
    loop.notify({20, 0}, 0xFE000B, carrying({statusRecord(3, false, true)}));
    loop.notify({20, 1}, 0xFE000B, carrying({addressRecord(30, "203.0.113.7", 3)}));
    EXPECT_EQ(takeLog(),
              "add dev: new\ndev: 3 disabled: 0 running: 1\ndev: 3 add address: 203.0.113.7 (30)\n"
              "dev: 3 ip: 203.0.113.7\n");
}

TEST_F(Notifications, OfOtherSendersAreIgnored) {
    set(settings(true));
    takeLog();
    tk::message status = carrying({statusRecord(1, true, true)});
    tk::stamp(status, {20, 5}, 0, tk::Kind::notification, 0xFE000B);
    EXPECT_EQ(gateway->cmdUnknown(status, 0xFE000B), tk::message());
    EXPECT_EQ(takeLog(), "");
}

TEST_F(Notifications, WithoutRecordsWalkEverythingAgain) {
    set(settings(true));
    loop.bus.requests.clear();
    loop.notify({20, 0}, 0xFE000B, {});
    loop.notify({20, 1}, 0xFE000B, carrying({}));
    EXPECT_EQ(loop.bus.requestsTo({20, 0}, 0xFE0004).size(), 1u);
    EXPECT_EQ(loop.bus.requestsTo({20, 1}, 0xFE0004).size(), 1u);
}

TEST_F(Notifications, AreAnsweredWithAnEmptyMessageAndUnknownCommandsWithAnError) {
    set(settings(true));
    tk::message added = interfaceRecord(3, "lo");
    tk::stamp(added, {20, 0}, 0, tk::Kind::notification, 0x10004);
    EXPECT_EQ(gateway->cmdUnknown(added, 0x10004), tk::message());
    tk::message other;
    tk::stamp(other, {20, 0}, 0, tk::Kind::notification, 0x12345);
    EXPECT_TRUE(tk::isError(gateway->cmdUnknown(other, 0x12345)));
}

TEST_F(Notifications, CannotBeMadeByARequest) {
    set(settings(true));
    takeLog();
    EXPECT_TRUE(tk::isError(loop.request(0x10004, goneRecord(1, "lan"))));
    EXPECT_TRUE(tk::isError(loop.request(0xFE000B, carrying({statusRecord(1, true, true)}))));
    EXPECT_EQ(takeLog(), "");
}

}  // namespace

}  // namespace gateway
