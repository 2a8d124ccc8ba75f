#include "upnp/upnpdevicedescr.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

TEST(UpnpServiceDescr, DerivesTypeIdAndTheThreePaths) {
    const UpnpServiceDescr service("upnp-org", "WANIPConnection:1", "WANIPConn1", "n");
    EXPECT_EQ(service.serviceType, "urn:schemas-upnp-org:service:WANIPConnection:1");
    EXPECT_EQ(service.serviceId, "urn:upnp-org:serviceId:WANIPConn1");
    EXPECT_EQ(service.SCPDURL, "/n.xml");
    EXPECT_EQ(service.controlURL, "/upnp/control/n");
    EXPECT_EQ(service.eventSubURL, "/upnp/event/n");
}

TEST(UpnpServiceDescr, DomainAppearsInTypeAndId) {
    const UpnpServiceDescr service("microsoft-com", "OSInfo:1", "OSInfo1", "osinfo");
    EXPECT_EQ(service.serviceType, "urn:schemas-microsoft-com:service:OSInfo:1");
    EXPECT_EQ(service.serviceId, "urn:microsoft-com:serviceId:OSInfo1");
}

}  // namespace

}  // namespace gateway
