#include "fuzz/gateway/requests.h"

#include <vector>

namespace fuzz {

namespace {

struct Action {
    const char* name;
    std::vector<const char*> arguments;
};

const std::vector<Action>& actions() {
    static const std::vector<Action> all = {
        {"AddPortMapping",
         {"NewRemoteHost", "NewExternalPort", "NewProtocol", "NewInternalPort", "NewInternalClient",
          "NewEnabled", "NewPortMappingDescription", "NewLeaseDuration"}},
        {"DeletePortMapping", {"NewRemoteHost", "NewExternalPort", "NewProtocol"}},
        {"GetGenericPortMappingEntry", {"NewPortMappingIndex"}},
        {"GetSpecificPortMappingEntry", {"NewRemoteHost", "NewExternalPort", "NewProtocol"}},
        {"QueryStateVariable", {"varName"}},
        {"SetConnectionType", {"NewConnectionType"}},
        {"RequestConnection", {}},
        {"ForceTermination", {}},
        {"GetExternalIPAddress", {}},
        {"GetConnectionTypeInfo", {}},
        {"GetStatusInfo", {}},
        {"GetNATRSIPStatus", {}},
        {"GetCommonLinkProperties", {}},
        {"GetTotalBytesSent", {}},
        {"GetTotalPacketsReceived", {}},
        {"X_GetICSStatistics", {}},
        {"NoSuchAction", {"NewRemoteHost"}},
    };
    return all;
}

}  // namespace

const char* serviceName(unsigned service) {
    const char* const names[serviceCount] = {"osinfo", "wanipconn-2", "wancommonifc-2", "wanipconn-4",
                                             "wancommonifc-4"};
    return names[service];
}

std::string bare(const std::string& method, const std::string& path, const std::string& host,
                 const std::string& headers) {
    return method + " " + path + " HTTP/1.1\r\nHOST: " + host + ":2828\r\n" + headers + "\r\n";
}

std::string soap(unsigned service, unsigned action, const std::string& host,
                 const std::function<const std::string*()>& argument) {
    const Action& chosen = actions()[action];
    const std::string name = chosen.name;
    std::string body =
        "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body><u:" + name + ">";
    for (const std::string element : chosen.arguments)
        if (const std::string* const value = argument())
            body += "<" + element + ">" + *value + "</" + element + ">";
    body += "</u:" + name + "></s:Body></s:Envelope>";
    const bool isQuery = name == "QueryStateVariable";
    const std::string type =
        isQuery ? "urn:schemas-upnp-org:control-1-0" : "urn:schemas-upnp-org:service:Any:1";
    return bare("POST", std::string("/upnp/control/") + serviceName(service), host,
                "CONTENT-TYPE: text/xml\r\nSOAPACTION: \"" + type + "#" + name +
                    "\"\r\nCONTENT-LENGTH: " + std::to_string(body.size()) + "\r\n") +
           body;
}

}  // namespace fuzz
