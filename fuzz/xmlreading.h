#pragma once

#include <expat.h>

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "xml/xmlnode.h"

namespace fuzz {

/// Reads a document with the same tokeniser as the daemon, but by itself and without limits: the elements,
/// their attributes, and for a leaf the last piece of text that came before its end.
class XMLReading {
public:
    explicit XMLReading(std::string_view text) {
        const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> tokeniser(
            XML_ParserCreate("UTF-8"), &XML_ParserFree);
        parser = tokeniser.get();
        XML_SetUserData(parser, this);
        XML_SetElementHandler(parser, started, ended);
        XML_SetCharacterDataHandler(parser, characters);
        XML_SetEntityDeclHandler(parser, entityDeclared);
        XML_SetAttlistDeclHandler(parser, attributeDeclared);
        open.emplace_back();
        const bool accepted =
            XML_Parse(parser, text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK;
        if (accepted && !declaresEntity) document = std::move(open.front().children.front());
    }

    /// The document element; none for a text that is not well-formed, or that declares an entity.
    std::optional<gateway::XMLNode> document;
    std::size_t declaredAttributes = 0;

private:
    static XMLReading& of(void* user) { return *static_cast<XMLReading*>(user); }

    static void started(void* user, const XML_Char* name, const XML_Char** attributes) {
        gateway::XMLNode element{std::string(name)};
        for (; *attributes; attributes += 2) element.addProperty(attributes[0], attributes[1]);
        of(user).open.push_back(std::move(element));
    }
    static void ended(void* user, const XML_Char*) {
        auto& open = of(user).open;
        gateway::XMLNode element = std::move(open.back());
        open.pop_back();
        if (element.children.empty()) element.value = of(user).lastText;
        open.back().addSubNode(std::move(element));
    }
    static void characters(void* user, const XML_Char* bytes, int length) {
        of(user).lastText.assign(bytes, static_cast<std::size_t>(length));
    }
    static void attributeDeclared(void* user, const XML_Char*, const XML_Char*, const XML_Char*,
                                  const XML_Char*, int) {
        ++of(user).declaredAttributes;
    }
    static void entityDeclared(void* user, const XML_Char*, int, const XML_Char*, int, const XML_Char*,
                               const XML_Char*, const XML_Char*, const XML_Char*) {
        of(user).declaresEntity = true;
        XML_StopParser(of(user).parser, XML_FALSE);
    }

    XML_Parser parser = nullptr;
    std::vector<gateway::XMLNode> open;  // the elements that have not ended, below a root without a name
    std::string lastText;
    bool declaresEntity = false;
};

}  // namespace fuzz
