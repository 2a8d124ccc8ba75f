// An XML document through parser, tree and writer. The tree is the one that another reading makes, if the
// document is within the limits; what is written of it and read again is equal, with two exceptions that are
// on purpose: an empty leaf takes the blanks that indent it, and texts with markup are not escaped.
#include <algorithm>
#include <string>
#include <string_view>

#include "fuzz/target.h"
#include "fuzz/xmlreading.h"
#include "xml/xmlparser.h"
#include "xml/xmlwriter.h"

namespace {

using gateway::XMLNode;
using gateway::XMLParser;
using gateway::XMLProp;

struct Size {
    std::size_t depth = 0;
    std::size_t nodes = 0;
    std::size_t text = 0;
};

void measure(const XMLNode& node, std::size_t depth, Size& size) {
    size.depth = std::max(size.depth, depth);
    size.nodes += 1 + node.properties.size();
    size.text += node.name.size() + node.value.size();
    for (const XMLProp& property : node.properties) size.text += property.name.size() + property.value.size();
    for (const XMLNode& child : node.children) measure(child, depth + 1, size);
}

bool isWithinLimits(const XMLNode& document) {
    Size size;
    measure(document, 1, size);
    return size.depth <= XMLParser::depthLimit && size.nodes <= XMLParser::nodeLimit &&
           size.text <= XMLParser::textLimit;
}

template <typename Rule>
bool anyText(const XMLNode& node, const Rule& rule) {
    return rule(node.name, false) || rule(node.value, false) ||
           std::any_of(node.properties.begin(), node.properties.end(),
                       [&rule](const XMLProp& property) {
                           return rule(property.name, true) || rule(property.value, true);
                       }) ||
           std::any_of(node.children.begin(), node.children.end(),
                       [&rule](const XMLNode& child) { return anyText(child, rule); });
}

bool isForbidden(std::string_view text, bool) {
    return std::any_of(text.begin(), text.end(), [](char byte) {
        return static_cast<unsigned char>(byte) < 0x20 && byte != '\t' && byte != '\n' && byte != '\r';
    });
}

/// True for a text that means something else when it is written as it is.
bool isMarkup(std::string_view text, bool inAttribute) {
    return text.find_first_of(inAttribute ? "<&\"\t\n\r" : "<&\r") != text.npos ||
           text.find("]]>") != text.npos;
}

/// Gives the empty leaves what they take when the tree is written and read.
void indentEmptyLeaves(XMLNode& node, std::size_t blanks) {
    if (node.children.empty() && node.value.empty()) node.value.assign(blanks, ' ');
    for (XMLNode& child : node.children) indentEmptyLeaves(child, blanks + 2);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(fuzz::text(data, size));
    const XMLParser parser(text);
    const fuzz::XMLReading reading(text);
    fuzz::require(parser.ok == (reading.document && isWithinLimits(*reading.document) &&
                                reading.declaredAttributes <= XMLParser::declaredLimit),
                  "what is well-formed and within the limits is read, and nothing else");
    if (!parser.ok) return 0;
    fuzz::require(parser.root.children.size() == 1, "one document element");
    XMLNode document = parser.root.children.front();
    fuzz::require(document == *reading.document, "the tree of the other reading");
    fuzz::require(!anyText(document, isForbidden), "no character that XML forbids");
    if (anyText(document, isMarkup)) return 0;

    indentEmptyLeaves(document, 0);
    const XMLParser again(gateway::toXmlDocument(document));
    fuzz::require(again.ok == isWithinLimits(document), "what is written is read");
    if (again.ok) fuzz::require(again.root.children.front() == document, "what is read again is equal");
    return 0;
}
