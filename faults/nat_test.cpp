// The rules between the bus, the store and the kernel's table: all three agree, at the latest when the table has been
// made anew.
#include <errno.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

#include "faults/driver.h"
#include "faults/injection.h"
#include "firewall/table.h"
#include "links/testing/fakekernel.h"
#include "nat/policy.h"
#include "nat/routerports.h"
#include "nat/service.h"
#include "nat/testing/fakenat.h"
#include "nat/testing/natrequest.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/capturedoutput.h"
#include "tk/testing/commands.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"

namespace faults {

namespace {

using links::testing::address;
using nat::testing::natRequest;
using Texts = std::multiset<std::string>;

/// The service of rules with the kernel's own table.
class NatWorld final : public World {
public:
    Outcome act() override {
        Outcome outcome{open()};
        if (outcome.front().empty()) {
            outcome.resize(7);
            return outcome;
        }
        tk::message lasting = natRequest(81, "192.0.2.3", 81, 6, {1000});
        lasting.remove(tk::field::dynamic);
        outcome.push_back(ask(&nat::Service::cmdAddObj, natRequest(80, "192.0.2.2", 8080)));
        const std::uint32_t dynamicId = id;
        outcome.push_back(ask(&nat::Service::cmdAddObj, lasting));
        const std::uint32_t lastingId = id;
        outcome.push_back(change(dynamicId));
        outcome.push_back(change(lastingId));
        outcome.push_back(remove(lastingId));
        outcome.push_back(remove(dynamicId));
        compare();
        close();
        return outcome;
    }
    std::string contradiction() override { return broken; }
    /// An administrator removes what a fault kept from being removed.
    void recover() override {
        hasRecovered = true;
        EXPECT_TRUE(tk::Store(files.file("nat"), 1).replace({}).isOk());
    }

private:
    std::string open() {
        const InProgram here;
        table = std::make_unique<firewall::Table>();
        service = std::make_unique<nat::Service>(files.file("nat"), policy, ports, *table, requester);
        table->setOwner(*service);
        if (table->open().isOk() && table->endFlows().isOk()) {
            service->load();
            return "open";
        }
        service.reset();
        table.reset();
        return {};
    }
    void close() {
        const InProgram here;
        service->withdraw();
        service.reset();
        table.reset();
    }
    std::string ask(tk::message (nat::Service::*command)(const tk::message&), const tk::message& request) {
        tk::message reply;
        {
            const InProgram here;
            reply = (service.get()->*command)(request);
        }
        id = reply.get_u32(tk::field::objectId);
        if (hasStruck() && !hasRecovered)
            compare();  // for the rest, at the end: to ask the kernel takes long
        return tk::isError(reply) ? "" : "done";
    }
    std::string change(std::uint32_t rule) {
        if (rule == 0) return {};
        tk::message request;
        request.insert_u32(tk::field::objectId, rule);
        request.insert_bool(tk::field::disabled, false);
        request.insert_be32(1000, address("192.0.2.9"));
        request.insert_be32(1001, address("192.0.2.9"));
        request.insert_u32(1002, 9090);
        request.insert_u32(1003, 9090);
        return ask(&nat::Service::cmdSetObj, request);
    }
    std::string remove(std::uint32_t rule) {
        if (rule == 0) return {};
        tk::message request;
        request.insert_u32(tk::field::objectId, rule);
        return ask(&nat::Service::cmdRemoveObj, request);
    }
    /// Gives the table time to be made anew, and then compares it and the store with what the bus is told.
    void compare() {
        Texts held = kernelElements();
        for (int seconds = 0; seconds < 3 && held != elements(); ++seconds) {
            const InProgram here;
            loop.advance(100);
            held = kernelElements();
        }
        if (held != elements()) broken += "the kernel has other rules than the bus tells\n";
        const tk::Store store(files.file("nat"), 1);
        const tk::message all = list();
        std::size_t stored = 0;
        for (const tk::message& record : all.get_message_array(tk::field::objects)) {
            if (record.get_bool(tk::field::dynamic)) continue;
            ++stored;
            const tk::message kept = store.get(record.get_u32(tk::field::objectId));
            if (kept.get_u32(1002) != record.get_u32(1002))
                broken += "the store has another rule than the bus tells\n";
        }
        if (store.all().size() != stored) broken += "the store has more rules than the bus tells\n";
    }
    tk::message list() { return service->cmdGetAll({}); }
    Texts elements() const {
        Texts texts;
        for (const firewall::Element& element : service->elements())
            texts.insert(toText(element.key.port, element.target.port));
        return texts;
    }
    static std::string toText(unsigned from, unsigned to) {
        return std::to_string(from) + ":" + std::to_string(to);
    }
    static Texts kernelElements() {
        bool failed = false;
        const std::string text = tk::testing::run("nft list map ip tk dstnat 2>&1", failed);
        Texts texts;
        const std::string port = ". tcp . ";
        for (std::size_t at = text.find(port); at != std::string::npos; at = text.find(port, at + 1)) {
            std::istringstream rest(text.substr(at + port.size()));
            std::string from, colon, target, dot, to;
            rest >> from >> colon >> target >> dot >> to;
            texts.insert(from + ":" + to.substr(0, to.find_first_not_of("0123456789")));
        }
        return texts;
    }

    tk::testing::CapturedOutput output;
    tk::testing::TestLoop loop;
    tk::testing::Folder files;
    links::testing::FakeZones world;
    nat::Policy policy{world.zones};
    nat::testing::FakeListeners listeners;
    nat::RouterPorts ports{world.zones, listeners, {}};
    links::testing::FakeRequester requester;
    std::unique_ptr<firewall::Table> table;
    std::unique_ptr<nat::Service> service;
    std::uint32_t id = 0;
    bool hasRecovered = false;
    std::string broken;
};

TEST(NatFaults, LeaveTheKernelTheStoreAndTheBusAgreeing) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    failEveryCall([] { return std::make_unique<NatWorld>(); }, allOrNothing, {.fatal = {Call::allocate}});
}

/// How a process ended that was refused memory once.
enum class Ending { notRefused, wentOn, aborted, failed };

/// Lets another process act in this world, without the memory that a library asks for the `number`th time.
Ending actWithout(NatWorld& world, std::uint32_t number) {
    constexpr int refused = 3, contradicted = 4;
    const pid_t child = ::fork();
    if (child == 0) {
        begin({Call::allocate, number, ENOMEM});
        (void)world.act();
        ::_exit(!world.contradiction().empty() ? contradicted : hasStruck() ? refused : 0);
    }
    int status = 0;
    if (::waitpid(child, &status, 0) != child) return Ending::failed;
    if (WIFSIGNALED(status)) return WTERMSIG(status) == SIGABRT ? Ending::aborted : Ending::failed;
    if (WEXITSTATUS(status) == refused) return Ending::wentOn;
    return WEXITSTATUS(status) == 0 ? Ending::notRefused : Ending::failed;
}

TEST(NatFaults, WithoutMemoryForARuleEndTheProcessAndItsRules) {
    if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
    constexpr std::uint32_t some = 11;  // of so many allocations one is refused
    const std::uint32_t every = areAllWanted() ? 1 : some;
    const Outcome whole = std::make_unique<NatWorld>()->act();
    Ending ending = Ending::wentOn;
    std::uint32_t number = 1;
    for (; ending != Ending::notRefused && !HasFailure(); number += every) {
        auto world = std::make_unique<NatWorld>();
        ending = actWithout(*world, number);
        bool failed = false;
        const std::string tables = tk::testing::run("nft list tables 2>&1", failed);
        world->recover();
        const Outcome recovered = world->act();
        world.reset();  // it holds standard output
        EXPECT_NE(ending, Ending::failed) << "malloc " << number;
        EXPECT_EQ(tables, "") << "malloc " << number;
        EXPECT_EQ(recovered, whole) << "malloc " << number;
    }
    EXPECT_GT(number, 10 * every) << "the library asks for memory";
    std::printf("%u of %u allocations refused\n", (number - 1) / every, number);
}

}  // namespace

}  // namespace faults
