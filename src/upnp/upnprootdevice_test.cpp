#include "upnp/upnprootdevice.h"

#include <vector>

#include <gtest/gtest.h>

#include "xml/xmlwriter.h"

namespace gateway {

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

/// A root R holds a device W, which holds a device C. Both have a service of the same type.
UpnpRootDevice makeTree() {
    UpnpDevice connection;
    connection.UDN = "C";
    connection.deviceType = "connection";
    connection.services.emplace_back("d", "S:1", "S1", "s1");
    UpnpDevice wan;
    wan.UDN = "W";
    wan.deviceType = "wan";
    wan.services.emplace_back("d", "S:1", "S2", "s2");
    wan.devices.push_back(connection);
    UpnpRootDevice root;
    root.UDN = "R";
    root.deviceType = "root";
    root.devices.push_back(wan);
    return root;
}

TEST(UpnpRootDevice, DocumentHoldsVersionThenDevice) {
    UpnpRootDevice root;
    root.UDN = "R";
    root.deviceType = "root";
    root.manufacturerURL.clear();
    EXPECT_EQ(toXml(root.buildDescription()),
              "<root xmlns=\"urn:schemas-upnp-org:device-1-0\">\r\n"
              "  <specVersion>\r\n"
              "    <major>1</major>\r\n"
              "    <minor>0</minor>\r\n"
              "  </specVersion>\r\n"
              "  <device>\r\n"
              "    <deviceType>urn:root</deviceType>\r\n"
              "    <friendlyName></friendlyName>\r\n"
              "    <manufacturer>Vantorel</manufacturer>\r\n"
              "    <modelName>Quillnet</modelName>\r\n"
              "    <UDN>uuid:R</UDN>\r\n"
              "    <serviceList></serviceList>\r\n"
              "  </device>\r\n"
              "</root>\r\n");
}

TEST(UpnpRootDevice, EmbeddedDevicesStandInsideTheirParents) {
    const XMLNode root = makeTree().buildDescription();
    const XMLNode& device = root.children.back();
    const XMLNode& wan = device.children.back().children.front();
    const XMLNode& connection = wan.children.back().children.front();
    EXPECT_EQ(device.children.back().name, "deviceList");
    EXPECT_EQ(wan.children.front(), XMLNode("deviceType", "urn:wan"));
    EXPECT_EQ(connection.children.front(), XMLNode("deviceType", "urn:connection"));
}

TEST(UpnpRootDevice, AnnouncesTheWholeTreeAndOnlyOneRootDevice) {
    AdvertTargets targets;
    makeTree().collectAdvertTargets(targets);
    EXPECT_EQ(Pairs(targets.begin(), targets.end()),
              (Pairs{{"upnp:rootdevice", "uuid:R::upnp:rootdevice"},
                     {"urn:connection", "uuid:C::urn:connection"},
                     {"urn:root", "uuid:R::urn:root"},
                     {"urn:schemas-d:service:S:1", "uuid:W::urn:schemas-d:service:S:1"},
                     {"urn:schemas-d:service:S:1", "uuid:C::urn:schemas-d:service:S:1"},
                     {"urn:wan", "uuid:W::urn:wan"},
                     {"uuid:C", "uuid:C"},
                     {"uuid:R", "uuid:R"},
                     {"uuid:W", "uuid:W"}}));
}

TEST(UpnpRootDevice, IsDescribedAndAnnouncedAsRootThroughItsBase) {
    const UpnpRootDevice root = makeTree();
    const UpnpDevice& device = root;
    EXPECT_EQ(device.buildDescription().name, "root");
    AdvertTargets targets;
    device.collectAdvertTargets(targets);
    EXPECT_EQ(targets.count("upnp:rootdevice"), 1U);
}

}  // namespace

}  // namespace gateway
