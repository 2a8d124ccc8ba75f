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

/// One element of an XML tree, with everything below it. A value: a copy copies the whole subtree.
/// Namespace prefixes are part of the names and mean nothing here. The destructor recurses; trees that are
/// read from the network are kept shallow by their parser.
struct XMLNode {
    XMLNode() = default;
    explicit XMLNode(std::string name) : name(std::move(name)) {}
    XMLNode(std::string name, std::string value) : name(std::move(name)), value(std::move(value)) {}

    /// Appends a child after the others: one of a name and a text, or a whole subtree.
    void addSubNode(std::string childName, std::string childValue);
    void addSubNode(XMLNode child);

    /// Appends an attribute. Duplicates are not looked for.
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
