#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "xml/xmlnode.h"

namespace gateway {

/// Reads one XML document into a tree of elements, attributes and the texts of leaf elements.
///
/// Text is deliberately treated simply. Each piece that the tokeniser delivers replaces the one before it:
/// where a leaf's text holds an entity, a character reference or a line end, only the part after the last one
/// is kept. White space is not trimmed. A leaf without text takes whatever text stood last before it. An
/// element with children gets no value.
///
/// What a document may cost is limited, for it comes from the network: one that exceeds a limit, or declares
/// an entity, counts as malformed.
class XMLParser {
public:
    static constexpr std::size_t depthLimit = 64;                       // elements inside one another
    static constexpr std::size_t nodeLimit = 4096;                      // elements and attributes in all
    static constexpr std::size_t textLimit = std::size_t{1024} * 1024;  // bytes of names and values in all

    /// Parses the whole text.
    explicit XMLParser(const std::string& text);
    XMLParser(const XMLParser&) = delete;
    XMLParser& operator=(const XMLParser&) = delete;

    /// What the tokeniser tells. `attributes` is a list of names and values in turn, with a null at its end.
    /// Errors: false at a limit; nothing more is to be told then.
    [[nodiscard]] bool startElement(const char* name, const char** attributes);
    [[nodiscard]] bool endElement();
    void characterData(const char* bytes, std::size_t length);

private:
    [[nodiscard]] bool keep(std::size_t textLength);

    // The top's children are all complete while it gets another one, so that no element of the stack ever
    // moves.
    std::vector<XMLNode*> stack;
    bool textPending = false;
    std::string pendingText;
    std::size_t nodes = 0;
    std::size_t keptText = 0;

public:
    /// True when the text was one well-formed document within the limits.
    bool ok = false;
    /// Nameless; its one child is the document element, or what was read of it up to an error.
    XMLNode root;
};

}  // namespace gateway
