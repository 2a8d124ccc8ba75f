#pragma once

#include <cstdint>

#include <gtest/gtest.h>

#include "links/testing/fakekernel.h"
#include "nat/policy.h"
#include "nat/routerports.h"
#include "nat/service.h"
#include "nat/testing/fakenat.h"
#include "nat/testing/natrequest.h"
#include "tk/bus.h"
#include "tk/names.h"
#include "tk/testing/folder.h"
#include "tk/testing/testloop.h"

namespace nat::testing {

/// The service of rules, between a scripted bus and a kernel that does what a test says.
class ServiceTest : public ::testing::Test {
protected:
    ServiceTest() {
        nat.attach(bus, {20, 5});
        kernel.owner = &nat;
    }
    /// Whenever a transaction comes, the kernel holds exactly what its table would be made again from.
    void TearDown() override { EXPECT_EQ(kernel.strayedOwner, 0); }
    std::uint32_t add(const tk::message& request) {
        const tk::message reply = nat.cmdAddObj(request);
        EXPECT_EQ(tk::getError(reply), "");
        return reply.get_u32(tk::field::objectId);
    }
    /// Adds a rule for each port from 1 to the last one. What the kernel holds is compared once, by the next transaction.
    void addMany(std::uint16_t last) {
        kernel.owner = nullptr;
        for (std::uint32_t port = 1; port <= last; ++port) add(natRequest(port, "192.0.2.2", port));
        kernel.owner = &nat;
    }
    static tk::message ofId(std::uint32_t id) {
        tk::message request;
        request.insert_u32(tk::field::objectId, id);
        return request;
    }
    static tk::message lasting(std::uint32_t port) {
        tk::message request = natRequest(port, "192.0.2.2", port, 6, {1000});
        request.remove(tk::field::dynamic);
        return request;
    }
    static tk::message withOptions(tk::message request, std::uint32_t options) {
        request.insert_u32(tk::field::options, options);
        return request;
    }
    static NatKey keyOf(std::uint16_t port) { return {links::testing::address("198.51.100.1"), 6, port}; }
    std::uint32_t count() { return nat.cmdGetCount({}).get_u32(tk::field::count); }

    tk::testing::Folder files;
    tk::testing::TestLoop loop;
    tk::testing::ScriptedBus& bus = loop.bus;
    links::testing::FakeZones world;
    FakeNat kernel;
    Policy policy{world.zones};
    FakeListeners listeners;
    RouterPorts ports{world.zones, listeners, {{51820, 51820}}};
    links::testing::FakeRequester requester;
    Service nat{files.file("nat"), policy, ports, kernel, requester};
};

}  // namespace nat::testing
