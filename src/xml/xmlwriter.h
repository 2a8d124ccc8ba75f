#pragma once

#include <string>

#include "xml/xmlnode.h"

namespace gateway {

/// Writes an element and everything below it: children on lines of their own, indented by two blanks a level,
/// every line ended by CRLF. Nothing is escaped, and an empty element has an opening and a closing tag. The
/// value of an element with children is not written.
std::string toXml(const XMLNode& node);

/// Writes a document: the XML declaration on a line of its own, then the element.
std::string toXmlDocument(const XMLNode& node);

}  // namespace gateway
