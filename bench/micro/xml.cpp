#include <benchmark/benchmark.h>

#include <string>

#include "xml/xmlnode.h"
#include "xml/xmlparser.h"
#include "xml/xmlwriter.h"

using namespace gateway;

namespace {

XMLNode device(const std::string& kind, unsigned services) {
    XMLNode node("device");
    for (const char* name : {"deviceType", "friendlyName", "manufacturer", "manufacturerURL",
                             "modelDescription", "modelName", "modelNumber", "modelURL", "UDN"})
        node.addSubNode(name, kind + " of the usual length");
    XMLNode list("serviceList");
    for (unsigned i = 0; i < services; ++i) {
        XMLNode service("service");
        for (const char* name : {"serviceType", "serviceId", "SCPDURL", "controlURL", "eventSubURL"})
            service.addSubNode(name, "urn:schemas-upnp-org:service:WANIPConnection:1");
        list.addSubNode(std::move(service));
    }
    node.addSubNode(std::move(list));
    return node;
}

/// A tree of the shape of the description: three devices in one another.
XMLNode description() {
    XMLNode list("deviceList"), inner("deviceList"), wan = device("WANDevice", 1);
    inner.addSubNode(device("WANConnectionDevice", 1));
    wan.addSubNode(std::move(inner));
    list.addSubNode(std::move(wan));
    XMLNode gateway = device("InternetGatewayDevice", 1);
    gateway.addSubNode(std::move(list));
    XMLNode root("root");
    root.addProperty("xmlns", "urn:schemas-upnp-org:device-1-0");
    root.addSubNode(std::move(gateway));
    return root;
}

void writeDescription(benchmark::State& state) {
    const XMLNode root = description();
    for (auto _ : state) {
        std::string text = toXmlDocument(root);
        benchmark::DoNotOptimize(text);
    }
}
BENCHMARK(writeDescription);

void readEnvelope(benchmark::State& state) {
    const std::string text =
        R"(<?xml version="1.0"?><s:Envelope xmlns:s="http://schemas.xmlsoap.org/soap/envelope/")"
        R"( s:encodingStyle="http://schemas.xmlsoap.org/soap/encoding/"><s:Body>)"
        R"(<u:AddPortMapping xmlns:u="urn:schemas-upnp-org:service:WANIPConnection:1">)"
        "<NewRemoteHost></NewRemoteHost><NewExternalPort>51413</NewExternalPort>"
        "<NewProtocol>UDP</NewProtocol><NewInternalPort>51413</NewInternalPort>"
        "<NewInternalClient>192.0.2.2</NewInternalClient><NewEnabled>1</NewEnabled>"
        "<NewPortMappingDescription>libutp 10.0.0.5:51413 UDP</NewPortMappingDescription>"
        "<NewLeaseDuration>0</NewLeaseDuration></u:AddPortMapping></s:Body></s:Envelope>";
    for (auto _ : state) {
        XMLParser parser(text);
        if (!parser.ok) return state.SkipWithError("the envelope is not read");
    }
}
BENCHMARK(readEnvelope);

}  // namespace
