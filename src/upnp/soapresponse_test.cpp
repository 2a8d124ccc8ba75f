#include "upnp/soapresponse.h"

#include <gtest/gtest.h>

#include "net/sockets.h"

namespace {

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
