// The served service descriptions say exactly what the services register: no more and no less.

#include <algorithm>
#include <fstream>
#include <sstream>

#include <gtest/gtest.h>

#include "services/osinfo.h"
#include "services/wancommoninterfaceconfig.h"
#include "services/wanipconnection.h"
#include "tk/testing/testloop.h"
#include "xml/xmlparser.h"

namespace gateway {

namespace {

std::string readDocument(const std::string& name) {
    std::ifstream file(std::string(GATEWAY_DATA_FOLDER) + "/upnp/" + name);
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

const XMLNode* child(const XMLNode& node, const std::string& name) {
    for (const XMLNode& candidate : node.children)
        if (candidate.name == name) return &candidate;
    return nullptr;
}

std::string textOf(const XMLNode& node, const std::string& name) {
    const XMLNode* found = child(node, name);
    return found ? found->value : "";
}

/// One action or variable as one line of text, the form in which both sides are compared.
using Lines = std::vector<std::string>;

Lines describedActions(const XMLNode& document) {
    Lines lines;
    const XMLNode* list = child(document, "actionList");
    if (!list) return lines;
    for (const XMLNode& action : list->children) {
        std::string line = textOf(action, "name") + ":";
        if (const XMLNode* arguments = child(action, "argumentList"))
            for (const XMLNode& argument : arguments->children)
                line += " " + textOf(argument, "direction") + " " + textOf(argument, "name") + "=" +
                        textOf(argument, "relatedStateVariable");
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

Lines registeredActions(const Service& service) {
    Lines lines;
    for (const auto& [name, action] : service.actions) {
        std::string line = name + ":";
        for (std::size_t i = 0; i < action->inNames.size(); ++i)
            line += " in " + action->inNames[i] + "=" + action->inVars[i];
        for (std::size_t i = 0; i < action->outNames.size(); ++i)
            line += " out " + action->outNames[i] + "=" + action->outVars[i];
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

Lines describedVariables(const XMLNode& document) {
    Lines lines;
    const XMLNode* table = child(document, "serviceStateTable");
    if (!table) return lines;
    for (const XMLNode& variable : table->children) {
        const bool evented = std::find(variable.properties.begin(), variable.properties.end(),
                                       XMLProp{"sendEvents", "yes"}) != variable.properties.end();
        std::string line =
            textOf(variable, "name") + " " + textOf(variable, "dataType") + (evented ? " evented" : "");
        if (const XMLNode* allowed = child(variable, "allowedValueList"))
            for (const XMLNode& value : allowed->children) line += " " + value.value;
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

Lines registeredVariables(const Service& service) {
    static constexpr const char* types[] = {"ui4", "ui2", "string", "boolean"};
    Lines lines;
    for (const auto& [name, variable] : service.variables) {
        std::string line =
            name + " " + types[static_cast<int>(variable->type)] + (variable->evented ? " evented" : "");
        for (const std::string& value : variable->allowed) line += " " + value;
        lines.push_back(line);
    }
    std::sort(lines.begin(), lines.end());
    return lines;
}

void expectDescribed(const Service& service, const std::string& name) {
    const std::string text = readDocument(name);
    ASSERT_FALSE(text.empty()) << name;
    EXPECT_LT(text.size(), 16384u) << name;  // all that the server sends of a file
    const XMLParser parser(text);
    ASSERT_TRUE(parser.ok) << name;
    ASSERT_EQ(parser.root.children.size(), 1u);
    const XMLNode& document = parser.root.children.front();
    EXPECT_EQ(document.name, "scpd");
    EXPECT_EQ(document.properties, (std::vector<XMLProp>{{"xmlns", "urn:schemas-upnp-org:service-1-0"}}));
    EXPECT_EQ(describedActions(document), registeredActions(service)) << name;
    EXPECT_EQ(describedVariables(document), registeredVariables(service)) << name;
}

class ServiceDescription : public testing::Test {
protected:
    tk::testing::TestLoop loop;
};

TEST_F(ServiceDescription, OfWANIPConnectionMatchesItsRegistry) {
    RefusedMappings refused;
    const WANIPConnection service(1, 0, refused);
    expectDescribed(service, "wanipconn.xml");
}

TEST_F(ServiceDescription, OfWANCommonInterfaceConfigMatchesItsRegistry) {
    const WANCommonInterfaceConfig service{tk::message()};
    expectDescribed(service, "wancommonifcfg.xml");
}

TEST_F(ServiceDescription, OfOSInfoMatchesItsRegistry) {
    const OSInfo service;
    expectDescribed(service, "osinfo.xml");
}

TEST(Icons, AreGifFilesOfTheirSizesWith8Bits) {
    for (const int size : {16, 32, 48}) {
        const std::string icon = readDocument("logo" + std::to_string(size) + ".gif");
        ASSERT_GT(icon.size(), 13u);
        EXPECT_LT(icon.size(), 16384u);
        EXPECT_TRUE(icon.starts_with("GIF8"));
        EXPECT_EQ(static_cast<unsigned char>(icon[6]), size);
        EXPECT_EQ(static_cast<unsigned char>(icon[8]), size);
        EXPECT_EQ(icon[10] & 7, 7);  // a colour table of 2^8 entries
        EXPECT_EQ(icon.back(), ';');
    }
}

}  // namespace

}  // namespace gateway
