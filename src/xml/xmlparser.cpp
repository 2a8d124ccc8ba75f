#include "xml/xmlparser.h"

#include <expat.h>
#include <sys/random.h>

#include <climits>
#include <memory>
#include <type_traits>

namespace gateway {

namespace {

/// Hands the tokeniser's events to the tree until a limit stops them. Expat delivers some events even after
/// it was stopped; those must not reach the tree.
struct Feed {
    XMLParser& tree;
    XML_Parser tokeniser = nullptr;
    std::size_t declared = 0;  // attributes
    bool stopped = false;

    void check(bool withinLimits) {
        if (withinLimits) return;
        stopped = true;
        XML_StopParser(tokeniser, XML_FALSE);
    }
};

void startElement(void* user, const XML_Char* name, const XML_Char** attributes) {
    auto& feed = *static_cast<Feed*>(user);
    if (!feed.stopped) feed.check(feed.tree.startElement(name, attributes));
}

void endElement(void* user, const XML_Char*) {
    auto& feed = *static_cast<Feed*>(user);
    if (!feed.stopped) feed.check(feed.tree.endElement());
}

void characterData(void* user, const XML_Char* bytes, int length) {
    auto& feed = *static_cast<Feed*>(user);
    if (!feed.stopped) feed.tree.characterData(bytes, static_cast<std::size_t>(length));
}

/// With an entity of its own, a short document could cost any amount of work.
void entityDeclared(void* user, const XML_Char*, int, const XML_Char*, int, const XML_Char*, const XML_Char*,
                    const XML_Char*, const XML_Char*) {
    static_cast<Feed*>(user)->check(false);
}

/// The tokeniser goes through all declared attributes of an element's name for each such element, and for each
/// further declaration.
void attributeDeclared(void* user, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*, int) {
    auto& feed = *static_cast<Feed*>(user);
    feed.check(++feed.declared <= XMLParser::declaredLimit);
}

/// Keys the tokeniser's tables, so that no peer can choose names that collide. One key for all documents: the
/// tokeniser would ask the kernel for each. 0 means that it asks, as long as the kernel has no random numbers
/// without waiting.
unsigned long secretKey() {
    static unsigned long key = 0;
    unsigned long drawn = 0;
    if (key == 0 && ::getrandom(&drawn, sizeof drawn, GRND_NONBLOCK) == ssize_t{sizeof drawn}) key = drawn;
    return key;
}

}  // namespace

XMLParser::XMLParser(const std::string& text) {
    static_assert(std::is_nothrow_move_constructible_v<XMLNode>);  // a growing list moves its elements
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> tokeniser(XML_ParserCreate("UTF-8"),
                                                                                 &XML_ParserFree);
    if (!tokeniser || text.size() > INT_MAX) return;
    Feed feed{*this, tokeniser.get()};
    (void)XML_SetHashSalt(tokeniser.get(), secretKey());  // fails only when parsing has begun
    XML_SetUserData(tokeniser.get(), &feed);
    XML_SetElementHandler(tokeniser.get(), gateway::startElement, gateway::endElement);
    XML_SetCharacterDataHandler(tokeniser.get(), gateway::characterData);
    XML_SetEntityDeclHandler(tokeniser.get(), entityDeclared);
    XML_SetAttlistDeclHandler(tokeniser.get(), attributeDeclared);
    stack.push_back(&root);
    ok = XML_Parse(tokeniser.get(), text.data(), static_cast<int>(text.size()), XML_TRUE) == XML_STATUS_OK;
}

bool XMLParser::startElement(const char* name, const char** attributes) {
    if (stack.size() > depthLimit) return false;
    XMLNode element{std::string(name)};
    if (!keep(element.name.size())) return false;
    for (; *attributes; attributes += 2) {
        element.addProperty(attributes[0], attributes[1]);
        const XMLProp& property = element.properties.back();
        if (!keep(property.name.size() + property.value.size())) return false;
    }
    stack.back()->addSubNode(std::move(element));
    stack.push_back(&stack.back()->children.back());
    textPending = true;
    return true;
}

bool XMLParser::endElement() {
    if (textPending) {
        textPending = false;
        keptText += pendingText.size();
        if (keptText > textLimit) return false;
        stack.back()->setVal(pendingText);
    }
    stack.pop_back();
    return true;
}

void XMLParser::characterData(const char* bytes, std::size_t length) {
    pendingText.assign(bytes, length);
}

bool XMLParser::keep(std::size_t textLength) {
    ++nodes;
    keptText += textLength;
    return nodes <= nodeLimit && keptText <= textLimit;
}

}  // namespace gateway
