#include "xml/xmlnode.h"

#include <utility>

namespace gateway {

void XMLNode::addSubNode(std::string childName, std::string childValue) {
    children.emplace_back(std::move(childName), std::move(childValue));
}

void XMLNode::addSubNode(XMLNode child) {
    children.push_back(std::move(child));
}

void XMLNode::addProperty(std::string propertyName, std::string propertyValue) {
    properties.push_back({std::move(propertyName), std::move(propertyValue)});
}

void XMLNode::setVal(std::string text) {
    value = std::move(text);
}

}  // namespace gateway
