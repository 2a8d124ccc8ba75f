#include "upnp/upnpdevice.h"

#include <vector>

#include <gtest/gtest.h>

#include "xml/xmlwriter.h"

namespace gateway {

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const XMLNode* child(const XMLNode& node, const std::string& name) {
    for (const XMLNode& candidate : node.children)
        if (candidate.name == name) return &candidate;
    return nullptr;
}

TEST(UpnpDevice, DefaultsAreWrittenAndEmptyTextsAreNot) {
    EXPECT_EQ(toXml(UpnpDevice().buildDescription()),
              "<device>\r\n"
              "  <deviceType>urn:</deviceType>\r\n"
              "  <friendlyName></friendlyName>\r\n"
              "  <manufacturer>Vantorel</manufacturer>\r\n"
              "  <manufacturerURL>http://www.vantorel.example/</manufacturerURL>\r\n"
              "  <modelName>Quillnet</modelName>\r\n"
              "  <UDN>uuid:</UDN>\r\n"
              "  <serviceList></serviceList>\r\n"
              "</device>\r\n");
}

/// A description in which no field has its default.
UpnpDeviceDescr fullDescription() {
    UpnpDeviceDescr description;
    description.deviceType = "schemas-upnp-org:device:WANDevice:1";
    description.friendlyName = "a";
    description.manufacturer = "b";
    description.manufacturerURL = "c";
    description.modelDescription = "d";
    description.modelName = "e";
    description.modelNumber = "f";
    description.modelURL = "g";
    description.serialNumber = "h";
    description.UDN = "i";
    description.UPC = "j";
    description.icons.push_back({"image/gif", 16, 17, 8, "/logo16.gif"});
    description.presentationURL = "k";
    return description;
}

TEST(UpnpDevice, EveryFieldStandsInItsPlace) {
    UpnpDevice device(fullDescription());
    device.services.emplace_back("upnp-org", "Layer3Forwarding:1", "L3Forwarding1", "n");
    device.devices.emplace_back().friendlyName = "inner";
    EXPECT_EQ(toXml(device.buildDescription()),
              "<device>\r\n"
              "  <deviceType>urn:schemas-upnp-org:device:WANDevice:1</deviceType>\r\n"
              "  <friendlyName>a</friendlyName>\r\n"
              "  <manufacturer>b</manufacturer>\r\n"
              "  <manufacturerURL>c</manufacturerURL>\r\n"
              "  <modelDescription>d</modelDescription>\r\n"
              "  <modelName>e</modelName>\r\n"
              "  <modelNumber>f</modelNumber>\r\n"
              "  <modelURL>g</modelURL>\r\n"
              "  <serialNumber>h</serialNumber>\r\n"
              "  <UDN>uuid:i</UDN>\r\n"
              "  <UPC>j</UPC>\r\n"
              "  <iconList>\r\n"
              "    <icon>\r\n"
              "      <mimetype>image/gif</mimetype>\r\n"
              "      <width>16</width>\r\n"
              "      <height>17</height>\r\n"
              "      <depth>8</depth>\r\n"
              "      <url>/logo16.gif</url>\r\n"
              "    </icon>\r\n"
              "  </iconList>\r\n"
              "  <serviceList>\r\n"
              "    <service>\r\n"
              "      <serviceType>urn:schemas-upnp-org:service:Layer3Forwarding:1</serviceType>\r\n"
              "      <serviceId>urn:upnp-org:serviceId:L3Forwarding1</serviceId>\r\n"
              "      <SCPDURL>/n.xml</SCPDURL>\r\n"
              "      <controlURL>/upnp/control/n</controlURL>\r\n"
              "      <eventSubURL>/upnp/event/n</eventSubURL>\r\n"
              "    </service>\r\n"
              "  </serviceList>\r\n"
              "  <deviceList>\r\n"
              "    <device>\r\n"
              "      <deviceType>urn:</deviceType>\r\n"
              "      <friendlyName>inner</friendlyName>\r\n"
              "      <manufacturer>Vantorel</manufacturer>\r\n"
              "      <manufacturerURL>http://www.vantorel.example/</manufacturerURL>\r\n"
              "      <modelName>Quillnet</modelName>\r\n"
              "      <UDN>uuid:</UDN>\r\n"
              "      <serviceList></serviceList>\r\n"
              "    </device>\r\n"
              "  </deviceList>\r\n"
              "  <presentationURL>k</presentationURL>\r\n"
              "</device>\r\n");
}

TEST(UpnpDevice, EmptyManufacturerAddressIsLeftOut) {
    UpnpDevice device;
    device.manufacturerURL.clear();
    EXPECT_EQ(child(device.buildDescription(), "manufacturerURL"), nullptr);
}

TEST(UpnpDevice, WithoutIconsThereIsNoIconList) {
    EXPECT_EQ(child(UpnpDevice().buildDescription(), "iconList"), nullptr);
}

TEST(UpnpDevice, WithoutServicesThereIsAnEmptyServiceList) {
    const XMLNode description = UpnpDevice().buildDescription();
    ASSERT_NE(child(description, "serviceList"), nullptr);
    EXPECT_TRUE(child(description, "serviceList")->children.empty());
}

TEST(UpnpDevice, IconsAreWrittenInOrderWithUnsignedNumbers) {
    UpnpDevice device;
    device.icons.push_back({"image/gif", 16, -1, 8, "/a.gif"});
    device.icons.push_back({"image/png", 32, 32, 24, "/b.png"});
    const XMLNode description = device.buildDescription();
    EXPECT_EQ(toXml(*child(description, "iconList")),
              "<iconList>\r\n"
              "  <icon>\r\n"
              "    <mimetype>image/gif</mimetype>\r\n"
              "    <width>16</width>\r\n"
              "    <height>4294967295</height>\r\n"
              "    <depth>8</depth>\r\n"
              "    <url>/a.gif</url>\r\n"
              "  </icon>\r\n"
              "  <icon>\r\n"
              "    <mimetype>image/png</mimetype>\r\n"
              "    <width>32</width>\r\n"
              "    <height>32</height>\r\n"
              "    <depth>24</depth>\r\n"
              "    <url>/b.png</url>\r\n"
              "  </icon>\r\n"
              "</iconList>\r\n");
}

TEST(UpnpDevice, ServicesAreWrittenWithTheirFiveTexts) {
    UpnpDevice device;
    device.services.emplace_back("upnp-org", "WANIPConnection:1", "WANIPConn1", "n");
    const XMLNode description = device.buildDescription();
    EXPECT_EQ(toXml(*child(description, "serviceList")),
              "<serviceList>\r\n"
              "  <service>\r\n"
              "    <serviceType>urn:schemas-upnp-org:service:WANIPConnection:1</serviceType>\r\n"
              "    <serviceId>urn:upnp-org:serviceId:WANIPConn1</serviceId>\r\n"
              "    <SCPDURL>/n.xml</SCPDURL>\r\n"
              "    <controlURL>/upnp/control/n</controlURL>\r\n"
              "    <eventSubURL>/upnp/event/n</eventSubURL>\r\n"
              "  </service>\r\n"
              "</serviceList>\r\n");
}

TEST(UpnpDevice, AnnouncesItsIdentifierAndItsType) {
    UpnpDevice device;
    device.UDN = "X";
    device.deviceType = "type";
    AdvertTargets targets;
    device.collectAdvertTargets(targets);
    EXPECT_EQ(Pairs(targets.begin(), targets.end()),
              (Pairs{{"urn:type", "uuid:X::urn:type"}, {"uuid:X", "uuid:X"}}));
}

TEST(UpnpDevice, CollectingRemovesNothing) {
    AdvertTargets targets{{"a", "b"}};
    UpnpDevice().collectAdvertTargets(targets);
    EXPECT_EQ(targets.count("a"), 1U);
}

TEST(UpnpDevice, ACopyIsDeep) {
    UpnpDevice device;
    device.devices.emplace_back();
    device.devices.front().friendlyName = "inner";
    const UpnpDevice copy = device;
    device.devices.front().friendlyName = "changed";
    EXPECT_EQ(copy.devices.front().friendlyName, "inner");
}

}  // namespace

}  // namespace gateway
