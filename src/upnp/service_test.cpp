#include "upnp/service.h"

#include <gtest/gtest.h>

#include "tk/testing/capturedoutput.h"
#include "tk/testing/testloop.h"
#include "upnp/event.h"
#include "upnp/makevector.h"
#include "upnp/testing/subscriber.h"

namespace gateway {

namespace {

using Texts = std::vector<std::string>;

/// A service with one getter that counts its calls and one action.
class Counting : public Service {
public:
    Counting() : Service("urn:counting") {
        addVar("Count", std::make_unique<Variable>(std::list<std::string>{}, true).release())
            .setValue(this, &Counting::next);
        addAct("Reset", makeVector(1, "Count"), makeVector(1, "NewCount"), {}, {}, this, &Counting::reset);
    }

    std::string next() { return std::to_string(++count); }
    UPNPStatus reset(const Texts& in, Texts&) {
        if (in.empty()) return 402;
        count = 0;
        return 0;
    }

    int count = 0;
};

/// Reports its destruction.
class Mortal final : public ValueGetter {
public:
    explicit Mortal(bool& dead) : dead(dead) {}
    ~Mortal() override { dead = true; }
    std::string operator()() override { return {}; }

private:
    bool& dead;
};

/// A service whose only subscriber cannot be connected to, so that each event leaves one log line.
struct Subscribed {
    Subscribed() {
        constexpr std::uint32_t broadcast = 0xFFFFFFFF;  // connecting to it fails at once
        service.subscriptions["a"] = std::make_unique<Subscription>(service, "a", broadcast, 80, "/");
        service.addVar("Evented", std::make_unique<Variable>(std::list<std::string>{}, true).release());
        service.addVar("Silent", std::make_unique<Variable>(std::list<std::string>{}, false).release());
    }
    /// How many events the change started.
    std::size_t eventsOf(const std::string& name, const std::string& value) {
        const tk::testing::CapturedOutput output;
        service.setVar(name, value);
        const std::string lines = output.text();
        std::size_t count = 0;
        for (std::size_t at = 0; (at = lines.find("tcp connect: ", at)) != std::string::npos; ++at) ++count;
        return count;
    }

    tk::testing::TestLoop loop;
    Service service{"urn:x"};
};

TEST(ServiceVariables, UnknownOneAndOneWithoutAValueReadAsEmpty) {
    Service service("urn:x");
    service.addVar("A", std::make_unique<Variable>(std::list<std::string>{}, false).release());
    EXPECT_EQ(service.getVar("A"), "");
    EXPECT_EQ(service.getVar("B"), "");
}

TEST(ServiceVariables, SettingAnUnknownOneDoesNothing) {
    Service service("urn:x");
    service.setVar("A", "1");
    EXPECT_TRUE(service.variables.empty());
}

TEST(ServiceVariables, SecondOneOfANameReplacesTheFirstWithoutDeletingIt) {
    bool dead = false;
    {
        Service service("urn:x");
        service.addVar("A", std::make_unique<Variable>(std::list<std::string>{}, false).release()).getter =
            std::make_unique<Mortal>(dead);
        service.addVar("A", std::make_unique<Variable>(std::list<std::string>{}, false).release())
            .setValue("2");
        EXPECT_EQ(service.getVar("A"), "2");
        EXPECT_EQ(service.variables.size(), 1U);
        EXPECT_FALSE(dead);
    }
    EXPECT_TRUE(dead);
}

TEST(ServiceVariables, GetterIsCalledUntilAValueIsSet) {
    Counting service;
    EXPECT_EQ(service.getVar("Count"), "1");
    EXPECT_EQ(service.getVar("Count"), "2");
    service.setVar("Count", "fixed");
    EXPECT_EQ(service.getVar("Count"), "fixed");
    EXPECT_EQ(service.getVar("Count"), "fixed");
    EXPECT_EQ(service.count, 3);  // setVar compares with the earlier value
}

TEST(ServiceEvents, ChangeOfANonEventedVariableStartsNone) {
    Subscribed world;
    EXPECT_EQ(world.eventsOf("Silent", "1"), 0U);
    EXPECT_EQ(world.service.getVar("Silent"), "1");
}

TEST(ServiceEvents, SettingTheSameValueTwiceStartsOne) {
    Subscribed world;
    EXPECT_EQ(world.eventsOf("Evented", "1"), 1U);
    EXPECT_EQ(world.eventsOf("Evented", "1"), 0U);
    EXPECT_EQ(world.eventsOf("Evented", "2"), 1U);
}

TEST(ServiceEvents, VariableWithoutAValueCountsAsEmpty) {
    Subscribed world;
    EXPECT_EQ(world.eventsOf("Evented", ""), 0U);
    EXPECT_TRUE(world.service.variables["Evented"]->hasValue);
}

/// The header line of a notification that names its subscription.
std::string sidLine(const std::string& notification) {
    const std::size_t start = notification.find("\r\nSID: ");
    if (start == std::string::npos) return {};
    return notification.substr(start + 2, notification.find("\r\n", start + 2) - start - 2);
}

TEST(ServiceEvents, ChangeReachesEverySubscriptionInTheOrderOfTheirIds) {
    tk::testing::TestLoop loop;
    const Subscriber subscriber;
    Service service("urn:x");
    service.addVar("Evented", std::make_unique<Variable>(std::list<std::string>{}, true).release());
    for (const char* sid : {"uuid:c", "uuid:a", "uuid:b"})
        service.subscriptions[sid] =
            std::make_unique<Subscription>(service, sid, htonl(INADDR_LOOPBACK), subscriber.port, "/");
    const tk::testing::CapturedOutput output;
    service.setVar("Evented", "1");
    EXPECT_EQ(service.events.size(), 3U);
    const tk::Fd connections[] = {subscriber.accept(), subscriber.accept(), subscriber.accept()};
    loop.settle();
    EXPECT_EQ(sidLine(Subscriber::received(connections[0])), "SID: uuid:a");
    EXPECT_EQ(sidLine(Subscriber::received(connections[1])), "SID: uuid:b");
    EXPECT_EQ(sidLine(Subscriber::received(connections[2])), "SID: uuid:c");
    EXPECT_EQ(output.text(), "notify: Evented = '1'\nnotify: Evented = '1'\nnotify: Evented = '1'\n");
}

TEST(ServiceActions, GetterActionNamesItsArgumentsAfterTheVariables) {
    Service service("urn:x");
    service.addAct("GetStatusInfo", makeVector(3, "ConnectionStatus", "LastConnectionError", "Uptime"));
    const Action& action = *service.actions.at("GetStatusInfo");
    EXPECT_EQ(action.outVars, (Texts{"ConnectionStatus", "LastConnectionError", "Uptime"}));
    EXPECT_EQ(action.outNames, (Texts{"NewConnectionStatus", "NewLastConnectionError", "NewUptime"}));
    EXPECT_TRUE(action.inVars.empty());
    EXPECT_TRUE(action.inNames.empty());
    EXPECT_EQ(action.callback, nullptr);
}

TEST(ServiceActions, GetterActionKeepsNamesThatAreGiven) {
    Service service("urn:x");
    service.addAct("X", makeVector(1, "A"), makeVector(1, "B"));
    EXPECT_EQ(service.actions.at("X")->outNames, Texts{"B"});
}

TEST(ServiceActions, CallbackIsCalledOnItsObject) {
    Counting service;
    service.count = 7;
    Texts out;
    EXPECT_EQ((*service.actions.at("Reset")->callback)({}, out), 402);
    EXPECT_EQ(service.count, 7);
    EXPECT_EQ((*service.actions.at("Reset")->callback)({"1"}, out), 0);
    EXPECT_EQ(service.count, 0);
    EXPECT_EQ(service.actions.at("Reset")->inNames, Texts{"NewCount"});
}

TEST(ServiceActions, WithoutObjectOrMethodThereIsNoCallback) {
    Counting object;
    Service service("urn:x");
    service.addAct("A", {}, {}, {}, {}, static_cast<Counting*>(nullptr), &Counting::reset);
    service.addAct("B", {}, {}, {}, {}, &object, nullptr);
    EXPECT_EQ(service.actions.at("A")->callback, nullptr);
    EXPECT_EQ(service.actions.at("B")->callback, nullptr);
}

TEST(ServiceEnd, WithdrawsTheTimersOfItsSubscriptions) {
    const tk::testing::TestLoop loop;
    {
        Service service("urn:x");
        service.subscriptions["a"] = std::make_unique<Subscription>(service, "a", 0, 80, "/");
        service.subscriptions["a"]->expireIn(1800);
        EXPECT_EQ(tk::getRunner()->timerCount(), 1U);
    }
    EXPECT_EQ(tk::getRunner()->timerCount(), 0U);
}

}  // namespace

}  // namespace gateway
