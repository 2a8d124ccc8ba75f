// The gateway daemon on real sockets: every answer is whole, the beginning of it, or none, the rules of the router are
// those of the mappings, and switching UPnP off and on makes good whatever failed.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <utility>

#include <gtest/gtest.h>

#include "contract/gateway.h"
#include "contract/natrules.h"
#include "core/testing/gatewayfixture.h"
#include "faults/driver.h"
#include "faults/injection.h"
#include "tk/names.h"
#include "tk/store.h"
#include "upnp/testing/subscriber.h"

namespace faults {

namespace {

using gateway::Subscriber;

const tk::Path rulesPath{20, 5};

sockaddr_in loopback(std::uint16_t port) {
    return Subscriber::loopback(port);
}

/// What arrived; empty for nothing, and for an end.
std::string received(const tk::Fd& socket) {
    char bytes[65536];
    const ssize_t length = ::recv(socket.get(), bytes, sizeof bytes, MSG_DONTWAIT);
    return length > 0 ? std::string(bytes, static_cast<std::size_t>(length)) : "";
}

std::string replaced(std::string text, const std::string& what, const std::string& by) {
    for (auto at = text.find(what); !what.empty() && at != std::string::npos;
         at = text.find(what, at + by.size()))
        text.replace(at, what.size(), by);
    return text;
}

/// The rules that the daemon made at the router.
class RouterRules {
public:
    explicit RouterRules(tk::testing::ScriptedBus& bus) {
        bus.answer(rulesPath, tk::command::addObject, [this](const tk::message& request) {
            tk::message reply;
            reply.insert_u32(tk::field::objectId, ++last);
            rules[last] = contract::NatRule::fromMessage(request);
            return reply;
        });
        bus.answer(rulesPath, tk::command::removeObject, [this](const tk::message& request) {
            rules.erase(request.get_u32(tk::field::objectId));
            return tk::message();
        });
    }
    std::size_t count() const { return rules.size(); }

private:
    std::uint32_t last = 0;
    std::map<std::uint32_t, contract::NatRule> rules;
};

/// A gateway that is to serve the loopback as its LAN, from stores that say so.
class DaemonWorld final : public World, public gateway::GatewayTest {
public:
    DaemonWorld() {
        SetUp();
        start();
        add(item(1, 2));
        add(item(2, 1));
        set(settings(true));
        stop();
    }
    ~DaemonWorld() override { TearDown(); }
    void TestBody() override {}

    Outcome act() override {
        Outcome outcome;
        {
            const InProgram here;
            start();
        }
        outcome.push_back(ask("GET /gateway.xml HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\n\r\n"));
        outcome.push_back(search());
        outcome.push_back(subscribe());
        outcome.push_back(notified());
        outcome.push_back(soap("AddPortMapping", key + mapping));
        compareRules();
        outcome.push_back(notified());
        outcome.push_back(soapOfMapping("GetSpecificPortMappingEntry"));
        outcome.push_back(soapOfMapping("DeletePortMapping"));
        compareRules();
        outcome.push_back(notified());
        outcome.push_back(unsubscribe());
        replaceInterface();
        outcome.push_back(search());
        outcome.push_back(administer());
        {
            const InProgram here;
            stop();
        }
        if (router.count() != 0) broken += "rules outlived the daemon\n";
        if (sockets() != 0) broken += "sockets are still watched\n";
        return outcome;
    }
    std::string contradiction() override { return broken; }
    /// An administrator puts back what could not be read, and the subscriber drops what ended before it was
    /// heard.
    void recover() override {
        while (subscriber.acceptNow().isOpen()) {
        }
        for (const std::string store : {"store/upnp", "store/upnpm"})
            if (folder.has(store + ".damaged"))
                std::filesystem::rename(folder.file(store + ".damaged"), folder.file(store));
    }

private:
    void serve() {
        const InProgram here;
        for (int turns = 0; turns < 4; ++turns) loop.looper.turn(0);
    }
    /// Serves until something arrives, or until the daemon has tried again whatever it tries again.
    std::string await(const tk::Fd& socket) {
        std::string all;
        for (int seconds = 0; seconds < 3; ++seconds) {
            serve();
            for (std::string more = received(socket); !more.empty(); more = received(socket)) all += more;
            if (!all.empty()) break;
            loop.clock.advance(1000);
        }
        return all;
    }
    std::string ask(const std::string& request) {
        const tk::Fd client(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = loopback(2828);
        if (::connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
            return {};
        (void)::send(client.get(), request.data(), request.size(), MSG_NOSIGNAL);
        return withoutDate(await(client));
    }
    /// A date moves with the clock of the test.
    static std::string withoutDate(std::string answer) {
        const std::size_t date = answer.find("DATE: ");
        if (date != std::string::npos) answer.erase(date, answer.find('\n', date) - date);
        return answer;
    }
    std::string search() {
        const tk::Fd client(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
        const sockaddr_in address = loopback(1900);
        const std::string request =
            "M-SEARCH * HTTP/1.1\r\nHOST: 239.255.255.250:1900\r\nMAN: \"ssdp:discover\"\r\nMX: 1\r\n"
            "ST: upnp:rootdevice\r\n\r\n";
        (void)::sendto(client.get(), request.data(), request.size(), 0,
                       reinterpret_cast<const sockaddr*>(&address), sizeof address);
        return await(client);
    }
    std::string soap(const std::string& action, const std::string& arguments) {
        const std::string body =
            "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" + action +
            ">" + arguments + "</u:" + action + "></s:Body></s:Envelope>";
        return ask(
            "POST /upnp/control/wanipconn-2 HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\nCONTENT-TYPE: text/xml\r\n"
            "SOAPACTION: \"urn:schemas-upnp-org:service:WANIPConnection:1#" +
            action + "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    /// The same for the mapping, which may not be there: then nothing else may be answered than that.
    std::string soapOfMapping(const std::string& action) {
        const bool exists = router.count() != 0;
        std::string answer = soap(action, key);
        if (exists) return answer;
        if (!answer.empty() && answer.find("<errorCode>714<") == std::string::npos)
            broken += "a mapping that is not there is answered\n";
        return {};
    }
    std::string subscribe() {
        sid.clear();
        nextSeq = 0;
        const std::string answer =
            ask("SUBSCRIBE /upnp/event/wanipconn-2 HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\nNT: upnp:event\r\n"
                "CALLBACK: <http://127.0.0.1:" +
                std::to_string(subscriber.port) + "/>\r\n\r\n");
        const std::size_t start = answer.find("SID: ");
        if (start != std::string::npos) sid = answer.substr(start + 5, answer.find('\r', start) - start - 5);
        return replaced(answer, sid, "SID");
    }
    std::string unsubscribe() {
        return sid.empty()
                   ? ""
                   : ask("UNSUBSCRIBE /upnp/event/wanipconn-2 HTTP/1.1\r\nHOST: 127.0.0.1:2828\r\nSID: " +
                         sid + "\r\n\r\n");
    }
    /// The event that the subscriber is sent, which it confirms.
    std::string notified() {
        serve();
        const tk::Fd connection = subscriber.acceptNow();
        if (!connection.isOpen()) return {};
        const std::string notify = await(connection);
        const std::string confirmation = "HTTP/1.1 200 OK\r\n\r\n";
        (void)::send(connection.get(), confirmation.data(), confirmation.size(), MSG_NOSIGNAL);
        serve();
        return withoutSeq(
            replaced(replaced(notify, sid, "SID"), ":" + std::to_string(subscriber.port), ":PORT"));
    }
    /// The number depends on what was lost before. It must go on from there.
    std::string withoutSeq(std::string notify) {
        const std::size_t start = notify.find("SEQ: ");
        const std::size_t end = notify.find('\r', start);
        if (start == std::string::npos || end == std::string::npos) return notify;
        const auto seq = std::strtoul(notify.c_str() + start + 5, nullptr, 10);
        if (seq != nextSeq && seq != nextSeq + 1) broken += "the events are numbered out of turn\n";
        nextSeq = seq + 1;
        return notify.erase(start, end - start);
    }
    void replaceInterface() {
        const InProgram here;
        loop.notify({20, 0}, 0x10004, gateway::goneRecord(1, "lan"));
        loop.notify({20, 0}, 0x10004, gateway::interfaceRecord(1, "lo", "lan"));
    }
    /// What an administrator changes is done and stored, or neither. In the end everything is as it was.
    std::string administer() {
        if (told() != stored())
            return {};  // the stores were not read, and nothing is changed until the next start
        const std::string without = request(tk::command::set, settings(true, true, false));
        const std::string added = request(tk::command::addObject, item(3, 1));
        const std::uint32_t id = added.empty() ? 0 : newId;
        tk::message changed = item(3, 2);
        changed.insert_u32(tk::field::objectId, id);
        const std::string set = added.empty() ? "" : request(tk::command::setObject, changed);
        tk::message named;
        named.insert_u32(tk::field::objectId, id);
        if (!added.empty() && request(tk::command::removeObject, named).empty())
            (void)request(tk::command::removeObject, named, false);
        if (!without.empty() && request(tk::command::set, settings(true)).empty())
            (void)request(tk::command::set, settings(true), false);
        const bool isWhole = !without.empty() && !added.empty() && !set.empty();
        return isWhole ? "changed" : "";
    }
    /// Asks the daemon for a change. Empty when it is refused; then nothing has changed.
    std::string request(std::uint32_t command, const tk::message& content, bool mayFail = true) {
        const std::string before = told() + stored();
        tk::message end;
        {
            const InProgram here;
            end = loop.request(command, content);
        }
        newId = end.get_u32(tk::field::objectId);
        if (told() != stored()) broken += "the stores hold something else than the bus is told\n";
        if (!tk::isError(end)) return "done";
        if (told() + stored() != before) broken += "a refused change has changed something\n";
        if (!mayFail) broken += "a change is refused again\n";
        return {};
    }
    /// The settings and the items, as the bus is told them, and as the stores hold them.
    std::string told() {
        tk::message items;
        for (const tk::message& record : gateway->cmdGetAll({}).get_message_array(tk::field::objects)) {
            tk::message values = record;
            values.remove(tk::field::objectId);
            items.insert_message_array(record.get_u32(tk::field::objectId), {values});
        }
        return gateway->cmdGet({}).serialise() + items.serialise();
    }
    std::string stored() const {
        tk::message items;
        const tk::Store itemStore(folder.file("store/upnp"), 1);
        for (const auto& [id, values] : itemStore.all()) items.insert_message_array(id, {values});
        const tk::Store settingStore(folder.file("store/upnpm"), 5);
        return contract::Settings::fromMessage(settingStore.get(0), {}).toMessage().serialise() +
               items.serialise();
    }
    /// What the administrator is shown must be what the router has.
    void compareRules() {
        const tk::message list = gateway->mappingList().cmdGetAll({});
        if (list.get_message_array(tk::field::objects).size() != router.count())
            broken += "the mappings are not the rules of the router\n";
    }

    const std::string key =
        "<NewRemoteHost></NewRemoteHost><NewExternalPort>80</NewExternalPort><NewProtocol>TCP</NewProtocol>";
    const std::string mapping =
        "<NewInternalPort>8080</NewInternalPort><NewInternalClient>127.0.0.1</NewInternalClient>"
        "<NewEnabled>1</NewEnabled><NewPortMappingDescription>web</NewPortMappingDescription>"
        "<NewLeaseDuration>0</NewLeaseDuration>";
    RouterRules router{loop.bus};
    Subscriber subscriber;
    std::string sid;
    std::size_t nextSeq = 0;
    std::uint32_t newId = 0;  // in the last answer to the administrator
    std::string broken;
};

/// A connection may end within the answer. XML that there was no memory to read is answered as if it were malformed.
bool isBeginning(const std::string& actual, const std::string& whole) {
    const bool isUnread = hasStruck(Call::allocate) && actual == "HTTP/1.1 400 Bad Request\r\n\r\n";
    return isUnread || whole.starts_with(actual);
}

TEST(DaemonFaults, LeaveNoWrongAnswerAndNoStrayRule) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    failEveryCall([] { return std::make_unique<DaemonWorld>(); }, isBeginning, {.everyAllocation = 4});
}

}  // namespace

}  // namespace faults
