// POSTs to the control URL of a WANIPConnection whose bus is a script. NUL separates the POSTs of an input.
// Each begins with a byte of flags, then the value of SOAPACTION up to the line end, then the body. Whatever
// comes: each answer is one that the code can give and that an XML parser accepts, and the mappings change
// only with a 200 and together with the rules of the firewall.
#include <arpa/inet.h>

#include <algorithm>
#include <set>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "contract/natrules.h"
#include "contract/programs.h"
#include "fuzz/target.h"
#include "fuzz/xmlreading.h"
#include "net/convert.h"
#include "services/wanipconnection.h"
#include "tk/log.h"
#include "tk/names.h"
#include "tk/testing/testloop.h"
#include "upnp/testing/fakeclient.h"
#include "xml/xmlparser.h"

namespace {

using gateway::HTTPMessage;
using gateway::XMLNode;
using tk::message;
using Mapping =
    std::tuple<int, int, int, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, bool, std::string>;

constexpr std::size_t postLimit = 16;  // of an input

struct Flags {
    explicit Flags(char byte)
        : busRefuses(byte & 1), otherType(byte & 2), otherHost(byte & 4), inEnvelope(byte & 8) {}
    bool busRefuses, otherType, otherHost;
    bool inEnvelope;  // the body is what stands in the envelope
};

/// The firewall at the other end of the bus.
class Firewall {
public:
    explicit Firewall(tk::testing::ScriptedBus& bus) {
        const auto answer = [this, &bus](std::uint32_t command, auto&& change) {
            bus.answer(contract::path::nat(), command, [this, change](const message& request) {
                if (refuses) return tk::errorMsg(tk::error::failed, "refused & logged");
                return change(request.get_u32(tk::field::objectId));
            });
        };
        answer(tk::command::addObject, [this](std::uint32_t) {
            rules.insert(++lastId);
            message reply;
            reply.insert_u32(tk::field::objectId, lastId);
            return reply;
        });
        answer(tk::command::setObject, [this](std::uint32_t id) {
            fuzz::require(rules.contains(id), "only a rule that is there is changed");
            return message();
        });
        answer(tk::command::removeObject, [this](std::uint32_t id) {
            fuzz::require(rules.erase(id) == 1, "only a rule that is there is removed");
            return message();
        });
    }
    bool refuses = false;
    std::set<std::uint32_t> rules;

private:
    std::uint32_t lastId = 0;
};

std::vector<Mapping> mappingsOf(const gateway::WANIPConnection& service) {
    std::vector<Mapping> found;
    for (const auto& [id, map] : service.mappings())
        found.emplace_back(id.port, id.protocol, map.internalPort, map.internalClient, map.natId,
                           map.requester, map.since, map.enabled, map.description);
    return found;
}

/// True when an answer may not be well-formed: descriptions are sent as they came, on purpose.
bool hasMarkup(const gateway::WANIPConnection& service) {
    const auto& maps = service.mappings();
    return std::any_of(maps.begin(), maps.end(), [](const auto& entry) {
        const std::string& text = entry.second.description;
        return text.find_first_of("<&") != text.npos || text.find("]]>") != text.npos;
    });
}

/// True for a bare 400.
bool isRefusal(const HTTPMessage& answer) {
    return answer.toString() == "HTTP/1.1 400 Bad Request\r\n\r\n";
}

HTTPMessage post(gateway::Service& service, const Flags& flags, std::string_view text) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    HTTPMessage request;
    request.title = "POST /upnp/control/wanipconnection HTTP/1.1";
    request.add("CONTENT-TYPE", flags.otherType ? "text/plain" : "text/xml; charset=\"utf-8\"");
    request.add("SOAPACTION", std::string(text.substr(0, end)));
    request.body = text.substr(std::min(end + 1, text.size()));
    if (flags.inEnvelope)
        request.body = "<s:Envelope s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\"><s:Body>" +
                       request.body + "</s:Body></s:Envelope>";
    gateway::FakeClient client(::inet_addr(flags.otherHost ? "192.0.2.3" : "192.0.2.2"));
    client.take(service.handlePost(request, client));
    fuzz::require(client.answered.has_value(), "a POST is answered at once");
    fuzz::require(fuzz::XMLReading(request.body).document || isRefusal(*client.answered),
                  "what is no XML is refused");
    return *client.answered;
}

/// The one element in the body of an answer.
const XMLNode& contentOf(const XMLNode& envelope) {
    fuzz::require(envelope.name == "s:Envelope" && envelope.children.size() == 1, "an envelope");
    const XMLNode& body = envelope.children.front();
    fuzz::require(body.name == "s:Body" && body.children.size() == 1, "a body of one element");
    return body.children.front();
}

void checkFault(const XMLNode& fault) {
    static const std::set<std::string> codes = {"401", "402", "404", "501", "713",
                                                "714", "716", "718", "725", "726"};
    fuzz::require(fault.name == "s:Fault" && fault.children.size() == 3, "a fault");
    const XMLNode& detail = fault.children[2];
    fuzz::require(detail.name == "detail" && detail.children.size() == 1, "the detail of a fault");
    const XMLNode& error = detail.children.front();
    fuzz::require(error.children.size() == 2 && codes.contains(error.children[0].value),
                  "a code that there is");
}

void checkAnswer(const HTTPMessage& answer, bool mayBeMalformed) {
    const HTTPMessage sent(answer.toString());
    fuzz::require(sent.complete && sent.body == answer.body, "an answer is whole");
    if (isRefusal(answer)) return;
    const bool isFault = answer.title == "HTTP/1.1 500 Internal Server Error";
    fuzz::require(isFault || answer.title == "HTTP/1.1 200 OK", "a status that there is");
    fuzz::require(answer.get("CONTENT-LENGTH") == std::to_string(answer.body.size()),
                  "the length of the body");
    if (mayBeMalformed && !isFault) return;
    const gateway::XMLParser parser(answer.body);
    fuzz::require(parser.ok && fuzz::XMLReading(answer.body).document, "a document that can be read");
    const XMLNode& content = contentOf(parser.root.children.front());
    if (isFault) return checkFault(content);
    fuzz::require(content.name.starts_with("u:") && content.name.ends_with("Response"),
                  "the response of an action");
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const tk::LogBatch quiet;
    tk::testing::TestLoop loop;
    Firewall firewall(loop.bus);
    gateway::RefusedMappings refused;
    {
        gateway::WANIPConnection service(7, ::inet_addr("198.51.100.1"), refused);
        std::string_view rest = fuzz::text(data, size);
        for (std::size_t posts = 0; posts < postLimit && !rest.empty(); ++posts) {
            const std::string_view text = rest.substr(0, rest.find('\0'));
            rest.remove_prefix(std::min(text.size() + 1, rest.size()));
            if (text.empty()) continue;
            const Flags flags(text.front());
            firewall.refuses = flags.busRefuses;
            const std::vector<Mapping> before = mappingsOf(service);
            const HTTPMessage answer = post(service, flags, text.substr(1));
            checkAnswer(answer, hasMarkup(service));
            fuzz::require(answer.title == "HTTP/1.1 200 OK" || mappingsOf(service) == before,
                          "what is not carried out changes nothing");
            std::set<std::uint32_t> used;
            for (const auto& [id, map] : service.mappings()) used.insert(map.natId);
            fuzz::require(used == firewall.rules && used.size() == service.mappings().size(),
                          "a rule for each mapping");
        }
        firewall.refuses = false;
    }
    fuzz::require(firewall.rules.empty(), "no rule outlives the service");
    fuzz::require(loop.looper.runner().timerCount() == 0, "no timer outlives the service");
    return 0;
}
