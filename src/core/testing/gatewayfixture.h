#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "core/gateway.h"
#include "tk/testing/folder.h"
#include "tk/testing/privatenetwork.h"
#include "tk/testing/testloop.h"
#include "tracking/testing/recordmakers.h"

namespace gateway {

/// A gateway on a scripted bus, with its own folder of stores and the loopback of a private network.
class GatewayTest : public testing::Test {
protected:
    void SetUp() override {
        if (!tk::testing::enterPrivateNetwork()) GTEST_SKIP() << "needs root for a network of its own";
        loop.bus.answer({20, 0}, 1,
                        carrying({interfaceRecord(1, "lo", "lan"), interfaceRecord(2, "lo", "wan")}));
        loop.bus.answer({20, 1}, 0xFE0004,
                        carrying({addressRecord(10, "127.0.0.1", 1), addressRecord(20, "198.51.100.1", 2)}));
        tk::message identity;
        identity.insert_string(1, "0123abcd");
        loop.bus.answer({65}, 0xFE000D, identity);
        testing::internal::CaptureStdout();
        captures = true;
    }
    void TearDown() override {
        if (!captures) return;
        stop();
        testing::internal::GetCapturedStdout();
    }

    /// Starts a gateway as main() does, after ending any earlier one.
    void start() {
        stop();
        gateway = std::make_unique<Gateway>(folder.path);
        loop.looper.addHandler(0, gateway.get());
        gateway->init();
    }
    void stop() {
        if (!gateway) return;
        gateway.reset();
        loop.looper.removeHandler(0);
    }
    std::string takeLog() {
        std::string log = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return log;
    }
    static tk::message settings(bool enabled, bool allowDisableExternal = true, bool showDummyRule = true) {
        tk::message values;
        values.insert_bool(1, enabled);
        values.insert_bool(2, allowDisableExternal);
        values.insert_bool(3, showDummyRule);
        return values;
    }
    tk::message set(const tk::message& values) { return loop.request(0xFE000E, values); }
    tk::message get() { return loop.request(0xFE000D, {}); }

    static tk::message item(std::uint32_t interface, std::uint32_t type, bool disabled = false) {
        tk::message values;
        values.insert_bool(0xFE000A, disabled);
        values.insert_u32(1, interface);
        values.insert_u32(2, type);
        return values;
    }
    tk::message add(const tk::message& values) { return loop.request(0xFE0005, values); }
    tk::message change(std::uint32_t id, tk::message values) {
        values.insert_u32(0xFE0001, id);
        return loop.request(0xFE0003, values);
    }
    tk::message removeItem(std::uint32_t id) {
        tk::message values;
        values.insert_u32(0xFE0001, id);
        return loop.request(0xFE0006, values);
    }
    std::size_t sockets() { return loop.looper.runner().socketCount(); }

    tk::testing::Folder folder;
    tk::testing::TestLoop loop;
    std::unique_ptr<Gateway> gateway;
    bool captures = false;
};

}  // namespace gateway
