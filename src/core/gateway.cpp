// Start-up and teardown, and what the parts of the gateway ask of it.

#include "core/gateway.h"

#include "contract/programs.h"
#include "http/httpserver.h"
#include "net/convert.h"
#include "tk/log.h"
#include "tk/looper.h"
#include "tk/names.h"
#include "xml/xmlwriter.h"

namespace gateway {

namespace {

constexpr const char* itemStore = "/store/upnp";
constexpr const char* settingsStore = "/store/upnpm";
constexpr std::uint32_t settingsRevision = 5;
constexpr const char* fileFolder = "/etc/upnp/";

constexpr std::uint32_t lowestItem = 1;
constexpr std::uint32_t highestItem = 0xFFFFFFFE;  // the id above it names the settings

constexpr std::uint32_t identityText = 1;  // field of the identity reply

}  // namespace

Gateway::Gateway(const std::string& folder)
    : Map(folder + itemStore, lowestItem, highestItem),
      settings(folder + settingsStore, settingsRevision),
      tracking(*this, discovery, server),
      discovery(*this),
      server(*this, folder + fileFolder) {}

Gateway::~Gateway() {
    if (current.enabled) tracking.disable();
    tk::log("exit");
}

void Gateway::init() {
    queryIdentity();
    describeRoot();
    addIcons();
    addOSInfo();
    tracking.rebuildAdvertTargets();
    AMap::init();
    loadSettings();
    if (current.enabled) {
        tracking.getDevices();
        tracking.enable();
    } else {
        tk::getLooper()->setupLeave(leaveTicks);
    }
}

void Gateway::queryIdentity() {
    tk::message request;
    request.insert_u32_array(tk::field::destination, contract::path::identity());
    const tk::message reply = exchangeCmd(request, tk::command::get, tk::exchangeTimeout);
    routerIdentity = reply.get_string(identityText);  // without an answer, UDNs have no suffix
}

void Gateway::describeRoot() {
    deviceType = "schemas-upnp-org:device:InternetGatewayDevice:1";
    friendlyName = "Vantorel Router";
    UDN = "UUID-VANTOREL-INTERNET-GATEWAY-DEVICE-" + routerIdentity;
}

void Gateway::addIcons() {
    constexpr int colourDepth = 8;
    for (const int size : {16, 32, 48}) {
        const std::string file = "logo" + toString(size) + ".gif";
        icons.push_back({"image/gif", size, size, colourDepth, "/" + file});
    }
    for (const UpnpIcon& icon : icons) server.addFile(icon.url, icon.url.substr(1));
}

void Gateway::addOSInfo() {
    const UpnpServiceDescr descr("microsoft-com", "OSInfo:1", "OSInfo1", "osinfo");
    services.push_back(descr);
    server.addFile(descr.SCPDURL, "osinfo.xml");
    server.registerService(&osInfo, descr.eventSubURL, descr.controlURL);
}

void Gateway::dropRootSubscriptions() {
    osInfo.subscriptions.clear();
}

SSDPInterface Gateway::findInterface(int ssdpSocket) {
    const Device* device = tracking.findDevice(ssdpSocket);
    return {device->ssdpSocket, device->address, device->name()};
}

std::string Gateway::describe(std::uint32_t address) {
    presentationURL = "http://" + ipToString(address) + "/";
    XMLNode root = buildDescription();
    root.addSubNode("URLBase", baseUrl(address));
    return toXmlDocument(root);
}

}  // namespace gateway
