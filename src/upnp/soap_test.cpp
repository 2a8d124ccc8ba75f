#include "upnp/soap.h"

#include <gtest/gtest.h>

#include "net/sockets.h"
#include "tk/testing/capturedoutput.h"
#include "upnp/makevector.h"

namespace gateway {

namespace {

using Texts = std::vector<std::string>;

const std::string type = "urn:schemas-upnp-org:service:Lamp:1";
const std::string encoding = "http://schemas.xmlsoap.org/soap/encoding/";

/// A lamp: an action with arguments and one without, and getter actions that work and that cannot.
class Lamp : public Service {
public:
    Lamp() : Service(type) {
        addVar("Level", new Variable({}, true)).type = VariableType::ui2;
        addVar("Colour", new Variable({"red", "green"}, false));
        addVar("Name", new Variable({}, false)).setValue("hall");
        addVar("Nothing", new Variable({}, false));
        addAct("Light", {"Level", "Colour"}, {"NewLevel", "NewColour"}, {"Name"}, {"NewName"}, this,
               &Lamp::light);
        addAct("Odd", {"Missing"}, {"NewMissing"}, {}, {}, this, &Lamp::light);
        addAct("GetName", {"Name"});
        addAct("GetNothing", {"Name", "Nothing"});
        addAct("GetMissing", {"Name", "Missing"});
    }

    UPNPStatus light(const Texts& in, Texts& out) {
        calls.push_back(in);
        out = results;
        return status;
    }

    std::vector<Texts> calls;
    Texts results = {"hall"};
    UPNPStatus status = 0;
};

std::string envelope(const std::string& content) {
    return "<?xml version=\"1.0\"?>\n<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
           "s:encodingStyle=\"" +
           encoding + "\"><s:Body>" + content + "</s:Body></s:Envelope>";
}

const std::string lightCall =
    "<u:Light xmlns:u=\"" + type + "\"><NewLevel>7</NewLevel><NewColour>red</NewColour></u:Light>";

class Soap : public testing::Test {
protected:
    HTTPMessage post(const std::string& soapAction, const std::string& body) {
        HTTPMessage request;
        request.title = "POST /upnp/control/lamp HTTP/1.1";
        request.add("CONTENT-TYPE", "text/xml; charset=\"utf-8\"");
        request.add("SOAPACTION", soapAction);
        request.body = body;
        return send(request);
    }
    HTTPMessage send(const HTTPMessage& request) {
        const tk::testing::CapturedOutput output;
        HTTPMessage response = gateway::handlePost(lamp, request);
        log = output.text();
        return response;
    }
    HTTPMessage callLight(const std::string& arguments) {
        return post(type + "#Light",
                    envelope("<u:Light xmlns:u=\"" + type + "\">" + arguments + "</u:Light>"));
    }
    HTTPMessage query(const std::string& content) {
        return post("\"urn:schemas-upnp-org:control-1-0#QueryStateVariable\"", envelope(content));
    }
    void expectBare400(const HTTPMessage& response, const std::string& line) {
        EXPECT_EQ(response.toString(), "HTTP/1.1 400 Bad Request\r\n\r\n");
        EXPECT_EQ(log, line + "\n");
    }
    void expectFault(const HTTPMessage& response, UPNPStatus code, const std::string& lines) {
        EXPECT_EQ(response.title, "HTTP/1.1 500 Internal Server Error");
        EXPECT_EQ(response.body, soapFault(lamp, code).body);
        EXPECT_EQ(log, lines);
    }

    Lamp lamp;
    std::string log;
};

std::string resultOf(const std::string& action, const std::string& content) {
    return "<?xml version=\"1.0\"?>\r\n"
           "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" s:encodingStyle=\"" +
           encoding + "\">\r\n  <s:Body>\r\n    <u:" + action + "Response xmlns:u=\"" + type + "\">\r\n" +
           content + "    </u:" + action + "Response>\r\n  </s:Body>\r\n</s:Envelope>\r\n";
}

TEST_F(Soap, ActionGetsItsArgumentsAndAnswersItsResults) {
    const HTTPMessage response = post(type + "#Light", envelope(lightCall));
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(response.body, resultOf("Light", "      <NewName>hall</NewName>\r\n"));
    EXPECT_EQ(lamp.calls, (std::vector<Texts>{{"7", "red"}}));
    EXPECT_EQ(log,
              "action: Light\narg: NewLevel, val: 7\narg: NewColour, val: red\n"
              "ret: NewName, val: hall\n");
}

TEST_F(Soap, SoapActionMayBeQuotedOrNot) {
    EXPECT_EQ(post("\"" + type + "#Light\"", envelope(lightCall)).title, "HTTP/1.1 200 OK");
    EXPECT_EQ(post(type + "#Light", envelope(lightCall)).title, "HTTP/1.1 200 OK");
    EXPECT_EQ(lamp.calls.size(), 2U);
}

TEST_F(Soap, LastByteOfAQuotedSoapActionGoesWhateverItIs) {
    EXPECT_EQ(post("\"" + type + "#LightX", envelope(lightCall)).title, "HTTP/1.1 200 OK");
}

TEST_F(Soap, TypeInSoapActionIsIgnored) {
    EXPECT_EQ(post("urn:schemas-upnp-org:service:Door:1#Light", envelope(lightCall)).title,
              "HTTP/1.1 200 OK");
    EXPECT_EQ(post("Light", envelope(lightCall)).title, "HTTP/1.1 200 OK");
    EXPECT_EQ(lamp.calls.size(), 2U);
}

TEST_F(Soap, ActionNameBeginsAtTheFirstHash) {
    expectBare400(post(type + "#x#Light", envelope(lightCall)),
                  "action: x#Light\nPOST: XML has no such action");
}

TEST_F(Soap, SoapActionOfOnlyQuotesNamesNoAction) {
    for (const char* header : {"\"", "\"\""})
        expectBare400(post(header, envelope(lightCall)), "action: \nPOST: XML has no such action");
}

TEST_F(Soap, AnyPrefixOrNoneIsAccepted) {
    EXPECT_EQ(
        post("x#Light", "<Envelope encodingStyle=\"" + encoding + "\"><Body><Light><NewLevel>1</NewLevel>" +
                            "<NewColour>red</NewColour></Light></Body></Envelope>")
            .title,
        "HTTP/1.1 200 OK");
    EXPECT_EQ(
        post("x#Light", "<SOAP:Envelope e:encodingStyle=\"" + encoding + "\"><b:Body><c:Light>" +
                            "<d:NewLevel>1</d:NewLevel><e:NewColour>red</e:NewColour></c:Light></b:Body>" +
                            "</SOAP:Envelope>")
            .title,
        "HTTP/1.1 200 OK");
    EXPECT_EQ(log,
              "action: Light\narg: d:NewLevel, val: 1\narg: e:NewColour, val: red\n"
              "ret: NewName, val: hall\n");
}

TEST_F(Soap, ContentTypeMustNameXml) {
    HTTPMessage request;
    request.add("CONTENT-TYPE", "application/soap+xml");
    request.add("SOAPACTION", type + "#Light");
    request.body = envelope(lightCall);
    expectBare400(send(request), "POST method with bad CONTENT-TYPE: application/soap+xml");
    HTTPMessage without;
    without.body = envelope(lightCall);
    expectBare400(send(without), "POST method with bad CONTENT-TYPE: ");
}

TEST_F(Soap, FirstFailingCheckDecides) {
    const std::string soapAction = type + "#Light";
    expectBare400(post(soapAction, "<a><b></a>"), "POST: with bad xml");
    expectBare400(post(soapAction, ""), "POST: with bad xml");
    expectBare400(post(soapAction, "<s:envelope/>"), "POST: XML bad node name: s:envelope");
    expectBare400(post(soapAction, "<s:Envelope/>"), "POST: XML no encoding style");
    expectBare400(post(soapAction, "<Envelope encodingStyle=\"" + encoding + "/\"/>"),
                  "POST: XML bad encoding style");
    expectBare400(post(soapAction, "<Envelope encodingStyle=\"" + encoding + "\"><body/></Envelope>"),
                  "POST: XML no body");
    expectBare400(post("", envelope(lightCall)), "POST: with no SOAPACTION");
    expectBare400(post(type + "#light", envelope(lightCall)), "action: light\nPOST: XML has no such action");
    EXPECT_TRUE(lamp.calls.empty());
}

TEST_F(Soap, FirstEncodingStyleAttributeCounts) {
    const std::string body =
        "<Envelope a:encodingStyle=\"x\" b:encodingStyle=\"" + encoding + "\"><Body/></Envelope>";
    expectBare400(post("x#Light", body), "POST: XML bad encoding style");
}

TEST_F(Soap, UnregisteredActionIsAFault) {
    expectFault(post("x#Fly", envelope("<u:Fly/>")), 401, "action: Fly\nPOST: no such action registered\n");
}

TEST_F(Soap, ArgumentsMayStandInAnyOrderAmongOthers) {
    callLight("<Extra>9</Extra><NewColour>green</NewColour><NewLevel>3</NewLevel>");
    EXPECT_EQ(lamp.calls, (std::vector<Texts>{{"3", "green"}}));
}

TEST_F(Soap, FirstOfTwoEqualArgumentsCounts) {
    callLight("<NewLevel>3</NewLevel><NewLevel>4</NewLevel><NewColour>red</NewColour>");
    EXPECT_EQ(lamp.calls, (std::vector<Texts>{{"3", "red"}}));
}

TEST_F(Soap, MissingArgumentIsAFault) {
    expectFault(callLight("<NewLevel>3</NewLevel>"), 402,
                "action: Light\narg: NewLevel, val: 3\nPOST: action xml doesn't have var: NewColour\n");
    EXPECT_TRUE(lamp.calls.empty());
}

TEST_F(Soap, ArgumentThatFailsItsCheckIsAFault) {
    expectFault(callLight("<NewLevel>65536</NewLevel><NewColour>red</NewColour>"), 402,
                "action: Light\narg: NewLevel, val: 65536\nPOST: action xml bad variable value\n");
    expectFault(callLight("<NewLevel>1</NewLevel><NewColour>RED</NewColour>"), 402,
                "action: Light\narg: NewLevel, val: 1\narg: NewColour, val: RED\n"
                "POST: action xml bad variable value\n");
    EXPECT_TRUE(lamp.calls.empty());
}

TEST_F(Soap, ArgumentWithoutItsVariableIsAFault) {
    expectFault(post("x#Odd", envelope("<Odd><NewMissing>1</NewMissing></Odd>")), 401,
                "action: Odd\nPOST: bad variable\n");
}

TEST_F(Soap, StatusOfTheHandlerIsTheFault) {
    lamp.status = 718;
    expectFault(post(type + "#Light", envelope(lightCall)), 718,
                "action: Light\narg: NewLevel, val: 7\narg: NewColour, val: red\n");
    lamp.status = 600;
    EXPECT_EQ(post(type + "#Light", envelope(lightCall)).body, soapFault(lamp, 600).body);
}

TEST_F(Soap, WrongNumberOfResultsIsAFault) {
    for (const Texts& results : {Texts{}, Texts{"a", "b"}}) {
        lamp.results = results;
        expectFault(post(type + "#Light", envelope(lightCall)), 401,
                    "action: Light\narg: NewLevel, val: 7\narg: NewColour, val: red\nbad ret\n");
    }
}

TEST_F(Soap, GetterActionAnswersFromItsVariables) {
    const HTTPMessage response = post("x#GetName", envelope("<u:GetName/>"));
    EXPECT_EQ(response.body, resultOf("GetName", "      <NewName>hall</NewName>\r\n"));
    EXPECT_EQ(log, "action: GetName\nret: NewName, val: hall\n");
}

TEST_F(Soap, GetterActionWithoutAValueIsAFault) {
    expectFault(post("x#GetNothing", envelope("<u:GetNothing/>")), 401,
                "action: GetNothing\nret: NewName, val: hall\nbad val\n");
}

TEST_F(Soap, GetterActionWithoutAVariableIsAFault) {
    expectFault(post("x#GetMissing", envelope("<u:GetMissing/>")), 401,
                "action: GetMissing\nret: NewName, val: hall\nbad var\n");
}

TEST_F(Soap, QueryAnswersTheValueWhateverTheEventedFlag) {
    lamp.setVar("Level", "5");
    const std::string before =
        "<?xml version=\"1.0\"?>\r\n<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
        "s:encodingStyle=\"" +
        encoding +
        "\">\r\n  <s:Body>\r\n    <u:QueryStateVariableResponse "
        "xmlns:u=\"urn:schemas-upnp-org:control-1-0\">\r\n      <return>";
    const std::string after =
        "</return>\r\n    </u:QueryStateVariableResponse>\r\n  </s:Body>\r\n</s:Envelope>\r\n";
    EXPECT_EQ(query("<u:QueryStateVariable><u:varName>Name</u:varName></u:QueryStateVariable>").body,
              before + "hall" + after);
    EXPECT_EQ(log, "query variable: Name\n");
    EXPECT_EQ(query("<QueryStateVariable><varName>Level</varName></QueryStateVariable>").body,
              before + "5" + after);
    EXPECT_EQ(post("urn:schemas-upnp-org:control-1-0#QueryStateVariable",
                   envelope("<QueryStateVariable><varName>Level</varName></QueryStateVariable>"))
                  .body,
              before + "5" + after);  // quotes make no difference
}

TEST_F(Soap, QueryOfAnUnknownOrEmptyVariableIsAFault) {
    expectFault(query("<QueryStateVariable><varName>Missing</varName></QueryStateVariable>"), 404,
                "query variable: Missing\nPOST: no such variable name registered\n");
    expectFault(query("<QueryStateVariable><varName>Nothing</varName></QueryStateVariable>"), 404,
                "query variable: Nothing\nPOST: variable has no value\n");
}

TEST_F(Soap, MalformedQueryIsRefused) {
    expectBare400(query("<Query/>"), "POST: query variable xml bad");
    expectBare400(query("<QueryStateVariable><name/></QueryStateVariable>"),
                  "POST: query variable xml var name bad");
}

TEST_F(Soap, QueryByAnotherNamespaceIsAnAction) {
    expectFault(post("urn:other#QueryStateVariable",
                     envelope("<QueryStateVariable><varName>Name</varName></QueryStateVariable>")),
                401, "action: QueryStateVariable\nPOST: no such action registered\n");
}

TEST_F(Soap, LineEndsInArgumentsCannotForgeLogLines) {
    callLight("<NewLevel>1</NewLevel><NewColour>&#10;</NewColour>");
    EXPECT_EQ(log,
              "action: Light\narg: NewLevel, val: 1\narg: NewColour, val: \\x0a\n"
              "POST: action xml bad variable value\n");
}

TEST(SoapResponse, WrapsTheContentInAnEnvelope) {
    Service service("urn:x");
    XMLNode content("u:AResponse");
    content.addSubNode("NewB", "1");
    const HTTPMessage response = soapResponse(service, 200, content);
    EXPECT_EQ(response.body,
              "<?xml version=\"1.0\"?>\r\n"
              "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
              "  <s:Body>\r\n"
              "    <u:AResponse>\r\n"
              "      <NewB>1</NewB>\r\n"
              "    </u:AResponse>\r\n"
              "  </s:Body>\r\n"
              "</s:Envelope>\r\n");
}

TEST(SoapResponse, HeadersStandInOrder) {
    Service service("urn:x");
    const HTTPMessage response = soapResponse(service, 200, XMLNode("a"));
    EXPECT_EQ(response.title, "HTTP/1.1 200 OK");
    EXPECT_EQ(response.names,
              (std::vector<std::string>{"CONTENT-LENGTH", "CONTENT-TYPE", "DATE", "EXT", "SERVER"}));
    EXPECT_EQ(response.get("CONTENT-LENGTH"), std::to_string(response.body.size()));
    EXPECT_EQ(response.get("CONTENT-TYPE"), "text/xml; charset=\"utf-8\"");
    EXPECT_EQ(response.get("EXT"), "");
    EXPECT_EQ(response.get("SERVER"), serverString);
    HTTPMessage dated(200);
    dated.addDate(0);
    EXPECT_EQ(response.get("DATE").size(), dated.get("DATE").size());
}

TEST(SoapResponse, FaultCarriesCodeAndDescription) {
    Service service("urn:x");
    const HTTPMessage response = soapFault(service, 718);
    EXPECT_EQ(response.title, "HTTP/1.1 500 Internal Server Error");
    EXPECT_EQ(response.body,
              "<?xml version=\"1.0\"?>\r\n"
              "<s:Envelope xmlns:s=\"http://schemas.xmlsoap.org/soap/envelope/\" "
              "s:encodingStyle=\"http://schemas.xmlsoap.org/soap/encoding/\">\r\n"
              "  <s:Body>\r\n"
              "    <s:Fault>\r\n"
              "      <faultCode>s:Client</faultCode>\r\n"
              "      <faultString>UPnPError</faultString>\r\n"
              "      <detail>\r\n"
              "        <UPnPError xmlns=\"urn:schemas-upnp-org:control-1-0\">\r\n"
              "          <errorCode>718</errorCode>\r\n"
              "          <errorDescription>ConflictInMappingEntry</errorDescription>\r\n"
              "        </UPnPError>\r\n"
              "      </detail>\r\n"
              "    </s:Fault>\r\n"
              "  </s:Body>\r\n"
              "</s:Envelope>\r\n");
}

TEST(SoapResponse, FaultOfAnUnknownCodeHasNoDescription) {
    Service service("urn:x");
    const std::string body = soapFault(service, 600).body;
    EXPECT_NE(body.find("<errorCode>600</errorCode>"), std::string::npos);
    EXPECT_NE(body.find("<errorDescription></errorDescription>"), std::string::npos);
}

}  // namespace

}  // namespace gateway
