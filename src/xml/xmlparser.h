#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "xml/xmlnode.h"

namespace gateway {

/// Reads one XML document into a tree of elements, attributes and the texts of leaf elements.
///
/// The treatment of text is simple on purpose. Each piece that the tokeniser delivers replaces the one before
/// it: if a leaf's text holds an entity, a character reference or a line end, only the part after the last of
/// these is kept. White space is not trimmed. A leaf without text takes the text that came last before it. An
/// element with children gets no value.
///
/// Documents come from the network, so their cost is limited: one that exceeds a limit, or declares an
/// entity, counts as malformed.
class XMLParser {
public:
    static constexpr std::size_t depthLimit = 64;                       // nested elements
    static constexpr std::size_t nodeLimit = 4096;                      // elements and attributes in all
    static constexpr std::size_t textLimit = std::size_t{1024} * 1024;  // bytes of names and values in all
    static constexpr std::size_t declaredLimit = 64;                    // attributes that a DOCTYPE declares

    /// Parses the whole text.
    explicit XMLParser(const std::string& text);
    XMLParser(const XMLParser&) = delete;
    XMLParser& operator=(const XMLParser&) = delete;

    /// Called by the tokeniser. `attributes` lists names and values in turn, and ends with a null.
    /// Errors: false at a limit; nothing may be called after that.
    [[nodiscard]] bool startElement(const char* name, const char** attributes);
    [[nodiscard]] bool endElement();
    void characterData(const char* bytes, std::size_t length);

private:
    [[nodiscard]] bool keep(std::size_t textLength);

    // When the top gets another child, the earlier ones are complete, so no element on the stack ever moves.
    std::vector<XMLNode*> stack;
    bool textPending = false;
    std::string pendingText;
    std::size_t nodes = 0;
    std::size_t keptText = 0;

public:
    /// True when the text was a well-formed document within the limits.
    bool ok = false;
    /// Has no name. Its one child is the document element, or what was read of it before an error.
    XMLNode root;
};

}  // namespace gateway
