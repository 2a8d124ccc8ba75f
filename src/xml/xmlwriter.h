#pragma once

#include <string>

#include "xml/xmlnode.h"

namespace gateway {

/// Writes an element and everything below it. Each child has a line of its own, indented by two blanks a
/// level, and each line ends in CRLF. Nothing is escaped. An empty element has an opening and a closing tag.
/// The value of an element with children is not written.
std::string toXml(const XMLNode& node);

/// Writes a document: the XML declaration on a line of its own, then the element.
std::string toXmlDocument(const XMLNode& node);

}  // namespace gateway
