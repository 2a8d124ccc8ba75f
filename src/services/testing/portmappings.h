#pragma once

#include <arpa/inet.h>

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "services/testing/servicecalls.h"
#include "services/testing/soapcalls.h"
#include "services/wanipconnection.h"
#include "tk/names.h"
#include "tk/testing/testloop.h"

namespace gateway {

using Texts = std::vector<std::string>;

inline const tk::Path firewall = {20, 5};
inline const std::uint32_t externalAddress = inet_addr("198.51.100.1");

/// A service whose firewall is scripted, and whose log is taken.
class PortMappings : public testing::Test {
protected:
    PortMappings() {
        testing::internal::CaptureStdout();
        loop.bus.answer(firewall, tk::command::addObject,
                        [this](const tk::message&) { return created(++lastRule); });
        service = std::make_unique<WANIPConnection>(7, externalAddress, refused);
        takeLog();
    }
    ~PortMappings() override {
        service.reset();
        testing::internal::GetCapturedStdout();
    }

    /// The firewall's reply to a new rule.
    static tk::message created(std::uint32_t rule) {
        tk::message message;
        message.insert_u32(tk::field::objectId, rule);
        return message;
    }
    std::string takeLog() {
        std::string log = testing::internal::GetCapturedStdout();
        testing::internal::CaptureStdout();
        return log;
    }
    /// The arguments of AddPortMapping in order. The defaults make a plain TCP mapping of port 80.
    struct Mapping {
        std::string remoteHost = "";
        std::string externalPort = "80";
        std::string protocol = "TCP";
        std::string internalPort = "8080";
        std::string internalClient = "192.0.2.2";
        std::string enabled = "1";
        std::string description = "web";
        std::string lease = "0";
    };
    UPNPStatus addMapping(const Mapping& mapping) {
        Texts out;
        const UPNPStatus status =
            call(*service, "AddPortMapping",
                 {mapping.remoteHost, mapping.externalPort, mapping.protocol, mapping.internalPort,
                  mapping.internalClient, mapping.enabled, mapping.description, mapping.lease},
                 out);
        EXPECT_EQ(out, Texts());
        return status;
    }
    /// From now on the host with that address asks.
    void askAs(std::uint32_t source) {
        EXPECT_EQ(soapCall(*service, "GetExternalIPAddress", "", source).title, "HTTP/1.1 200 OK");
        takeLog();
    }
    UPNPStatus deleteMapping(const Texts& key) {
        Texts out;
        return call(*service, "DeletePortMapping", key, out);
    }
    UPNPStatus generic(const std::string& index, Texts& out) {
        out.clear();
        return call(*service, "GetGenericPortMappingEntry", {index}, out);
    }
    UPNPStatus specific(const Texts& key, Texts& out) {
        out.clear();
        return call(*service, "GetSpecificPortMappingEntry", key, out);
    }
    std::vector<tk::message> sent(std::uint32_t command) {
        std::vector<tk::message> contents;
        for (const auto& request : loop.bus.requestsTo(firewall, command)) {
            EXPECT_EQ(request.timeout, 6000u);
            EXPECT_EQ(request.from, (tk::Path{80, 0}));
            contents.push_back(request.content);
        }
        return contents;
    }
    std::string count() { return service->getVar("PortMappingNumberOfEntries"); }

    tk::testing::TestLoop loop;
    std::uint32_t lastRule = 40;
    RefusedMappings refused;
    std::unique_ptr<WANIPConnection> service;
};

}  // namespace gateway
