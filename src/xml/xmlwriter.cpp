#include "xml/xmlwriter.h"

#include "net/sockets.h"

namespace gateway {

namespace {

constexpr std::size_t indentation = 2;  // blanks per level

void write(std::string& out, const XMLNode& node, std::size_t depth) {
    out.append("<").append(node.name);
    for (const XMLProp& property : node.properties)
        out.append(" ").append(property.name).append("=\"").append(property.value).append("\"");
    out.append(">");
    if (node.children.empty()) {
        out.append(node.value);
    } else {
        out.append(crlf);
        for (const XMLNode& child : node.children) {
            out.append(depth + indentation, ' ');
            write(out, child, depth + indentation);
        }
        out.append(depth, ' ');
    }
    out.append("</").append(node.name).append(">").append(crlf);
}

}  // namespace

std::string toXml(const XMLNode& node) {
    std::string text;
    write(text, node, 0);
    return text;
}

std::string toXmlDocument(const XMLNode& node) {
    return "<?xml version=\"1.0\"?>" + crlf + toXml(node);
}

}  // namespace gateway
