#pragma once

#include <string>
#include <utility>
#include <vector>

namespace gateway {

/// One attribute of an element.
struct XMLProp {
    std::string name;
    std::string value;
    bool operator==(const XMLProp&) const = default;
};

/// One element of an XML tree, with everything below it. A value: a copy includes the whole subtree.
/// Namespace prefixes are part of the names and have no meaning here. The destructor recurses; the parser
/// keeps trees from the network shallow.
struct XMLNode {
    XMLNode() = default;
    explicit XMLNode(std::string name) : name(std::move(name)) {}
    XMLNode(std::string name, std::string value) : name(std::move(name)), value(std::move(value)) {}

    /// Appends a child: a name with a text, or a whole subtree.
    void addSubNode(std::string childName, std::string childValue);
    void addSubNode(XMLNode child);

    /// Appends an attribute, without checking for duplicates.
    void addProperty(std::string propertyName, std::string propertyValue);

    /// Replaces the text of the element.
    void setVal(std::string text);

    bool operator==(const XMLNode&) const = default;

    std::string name;
    std::string value;                // the text of an element without children
    std::vector<XMLNode> children;    // in document order
    std::vector<XMLProp> properties;  // in document order
};

}  // namespace gateway
