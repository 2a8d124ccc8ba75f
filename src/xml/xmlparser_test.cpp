#include "xml/xmlparser.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

XMLNode rootElement(const std::string& text) {
    const XMLParser parser(text);
    EXPECT_TRUE(parser.ok) << text;
    EXPECT_EQ(parser.root.children.size(), 1U);
    return parser.root.children.empty() ? XMLNode() : parser.root.children.front();
}

std::string repeat(const std::string& text, std::size_t count) {
    std::string all;
    for (std::size_t i = 0; i < count; ++i) all += text;
    return all;
}

TEST(XMLParser, DocumentElementIsTheRootsOnlyChild) {
    const XMLParser parser("<a>1</a>");
    EXPECT_TRUE(parser.ok);
    EXPECT_EQ(parser.root.name, "");
    EXPECT_EQ(parser.root.children, (std::vector<XMLNode>{{"a", "1"}}));
}

TEST(XMLParser, NamesKeepTheirNamespacePrefixes) {
    const XMLNode element = rootElement("<s:a xmlns:s=\"urn:x\" s:b=\"2\"><s:c>1</s:c></s:a>");
    EXPECT_EQ(element.name, "s:a");
    EXPECT_EQ(element.properties, (std::vector<XMLProp>{{"xmlns:s", "urn:x"}, {"s:b", "2"}}));
    EXPECT_EQ(element.children, (std::vector<XMLNode>{{"s:c", "1"}}));
}

TEST(XMLParser, AttributesStandInDocumentOrder) {
    EXPECT_EQ(rootElement("<a z=\"1\" b=\"2\" m=\"&lt;\"/>").properties,
              (std::vector<XMLProp>{{"z", "1"}, {"b", "2"}, {"m", "<"}}));
}

TEST(XMLParser, ElementWithChildrenHasNoValue) {
    const XMLNode element = rootElement("<a>before<b>1</b>after</a>");
    EXPECT_EQ(element.value, "");
    EXPECT_EQ(element.children, (std::vector<XMLNode>{{"b", "1"}}));
}

TEST(XMLParser, OnlyTheTextAfterTheLastReferenceIsKept) {
    EXPECT_EQ(rootElement("<a>one &amp; two</a>").value, " two");
    EXPECT_EQ(rootElement("<a>one &amp; two &lt; three</a>").value, " three");
    EXPECT_EQ(rootElement("<a>one&#65;</a>").value, "A");
}

TEST(XMLParser, OnlyTheTextAfterTheLastLineEndIsKept) {
    EXPECT_EQ(rootElement("<a>one\ntwo</a>").value, "two");
    EXPECT_EQ(rootElement("<a>one\n</a>").value, "\n");
}

TEST(XMLParser, WhiteSpaceIsNotTrimmed) {
    EXPECT_EQ(rootElement("<a>  1\t </a>").value, "  1\t ");
}

TEST(XMLParser, EmptyLeafTakesTheWhiteSpaceBeforeIt) {
    // The tokeniser sees the line end and the indentation as two pieces; the last one stays.
    EXPECT_EQ(rootElement("<a>\n  <b></b></a>").children, (std::vector<XMLNode>{{"b", "  "}}));
    EXPECT_EQ(rootElement("<a>\n<b/></a>").children, (std::vector<XMLNode>{{"b", "\n"}}));
    EXPECT_EQ(rootElement("<a>  <b/></a>").children, (std::vector<XMLNode>{{"b", "  "}}));
}

TEST(XMLParser, EmptyLeafTakesTheTextOfTheLeafBeforeIt) {
    EXPECT_EQ(rootElement("<a><b>1</b><c></c></a>").children, (std::vector<XMLNode>{{"b", "1"}, {"c", "1"}}));
}

TEST(XMLParser, EmptyLeafWithoutTextBeforeItIsEmpty) {
    EXPECT_EQ(rootElement("<a><b></b></a>").children, (std::vector<XMLNode>{{"b", ""}}));
}

TEST(XMLParser, MalformedTextKeepsTheTreeUpToTheError) {
    const XMLParser parser("<a><b>1</b><c></a>");
    EXPECT_FALSE(parser.ok);
    ASSERT_EQ(parser.root.children.size(), 1U);
    EXPECT_EQ(parser.root.children[0].children.front(), XMLNode("b", "1"));
}

TEST(XMLParser, TextWithoutADocumentIsMalformed) {
    for (const char* text : {"", " ", "text", "<a>", "<a/><b/>", "<a b=1/>", "<a>\x01</a>", "<a>\xff</a>"})
        EXPECT_FALSE(XMLParser(text).ok) << text;
}

TEST(XMLParser, ADocumentIsWellFormedOnlyWithItsLastByte) {
    const std::string text = "<?xml version=\"1.0\"?><a b=\"1\"><c>2</c></a>";
    for (std::size_t cut = 0; cut < text.size(); ++cut)
        EXPECT_FALSE(XMLParser(text.substr(0, cut)).ok) << "cut at byte " << cut;
    EXPECT_TRUE(XMLParser(text).ok);
}

TEST(XMLParser, ManySiblingsAndTheirChildrenStayInOrder) {
    std::string text = "<a>";
    for (int i = 0; i < 1000; ++i) text += "<b><c>" + std::to_string(i) + "</c></b>";
    const XMLNode element = rootElement(text + "</a>");
    ASSERT_EQ(element.children.size(), 1000U);
    for (int i = 0; i < 1000; ++i)
        EXPECT_EQ(element.children[static_cast<std::size_t>(i)].children.front().value, std::to_string(i));
}

TEST(XMLParser, NestingIsLimited) {
    const std::size_t limit = XMLParser::depthLimit;
    EXPECT_TRUE(XMLParser(repeat("<a>", limit) + repeat("</a>", limit)).ok);
    EXPECT_FALSE(XMLParser(repeat("<a>", limit + 1) + repeat("</a>", limit + 1)).ok);
    EXPECT_FALSE(XMLParser(repeat("<a>", 30000)).ok);
    EXPECT_FALSE(XMLParser(repeat("<a>", limit) + "<a/>" + repeat("</a>", limit)).ok);
}

TEST(XMLParser, NothingIsReadPastALimit) {
    const std::size_t limit = XMLParser::depthLimit;
    const XMLParser parser(repeat("<a>", limit) + "text<b/>" + repeat("</a>", limit));
    EXPECT_FALSE(parser.ok);
    const XMLNode* innermost = &parser.root;
    std::size_t depth = 0;
    for (; !innermost->children.empty(); ++depth) innermost = &innermost->children.front();
    EXPECT_EQ(depth, limit);
    EXPECT_EQ(innermost->value, "");  // not even the end of the element past the limit
}

TEST(XMLParser, NumberOfElementsIsLimited) {
    const std::size_t limit = XMLParser::nodeLimit;
    EXPECT_TRUE(XMLParser("<a>" + repeat("<b/>", limit - 1) + "</a>").ok);
    EXPECT_FALSE(XMLParser("<a>" + repeat("<b/>", limit) + "</a>").ok);
}

TEST(XMLParser, NumberOfAttributesIsLimited) {
    const std::size_t limit = XMLParser::nodeLimit;
    EXPECT_TRUE(XMLParser("<a>" + repeat("<b c=\"\"/>", (limit - 1) / 2) + "</a>").ok);
    EXPECT_FALSE(XMLParser("<a>" + repeat("<b c=\"\"/>", limit / 2) + "</a>").ok);
}

TEST(XMLParser, TextThatManyEmptyLeavesRepeatIsLimited) {
    const std::string text(std::size_t{100} * 1024, 'x');
    EXPECT_TRUE(XMLParser("<a><b>" + text + "</b>" + repeat("<c/>", 9) + "</a>").ok);
    EXPECT_FALSE(XMLParser("<a><b>" + text + "</b>" + repeat("<c/>", 10) + "</a>").ok);
}

TEST(XMLParser, TextThatAttributeDefaultsRepeatIsLimited) {
    const std::string text(std::size_t{100} * 1024, 'x');
    const std::string type = "<!DOCTYPE a [<!ATTLIST b c CDATA \"" + text + "\">]>";
    EXPECT_TRUE(XMLParser(type + "<a>" + repeat("<b/>", 10) + "</a>").ok);
    EXPECT_FALSE(XMLParser(type + "<a>" + repeat("<b/>", 11) + "</a>").ok);
}

/// A document whose DOCTYPE declares so many attributes, each by such a text.
std::string declaring(const std::string& declaration, std::size_t count) {
    return "<!DOCTYPE a [" + repeat(declaration, count) + "]><a/>";
}

TEST(XMLParser, NumberOfDeclaredAttributesIsLimited) {
    const std::size_t limit = XMLParser::declaredLimit;
    for (const char* declaration :
         {"<!ATTLIST b c ID #IMPLIED>", "<!ATTLIST b c CDATA \"\">", "<!ATTLIST b c (d|e) #REQUIRED>",
          "<!ATTLIST b c NMTOKENS #FIXED \"d\">"}) {
        EXPECT_TRUE(XMLParser(declaring(declaration, limit)).ok) << declaration;
        EXPECT_FALSE(XMLParser(declaring(declaration, limit + 1)).ok) << declaration;
    }
}

TEST(XMLParser, DeclaredAttributesOfAllElementsAndListsCountTogether) {
    const std::string ofThree = "<!ATTLIST b c ID #IMPLIED d CDATA \"\"><!ATTLIST e c CDATA #IMPLIED>";
    const std::size_t limit = XMLParser::declaredLimit;
    EXPECT_TRUE(XMLParser(declaring(ofThree, limit / 3)).ok);
    EXPECT_FALSE(XMLParser(declaring(ofThree, limit / 3 + 1)).ok);
}

TEST(XMLParser, WhatDeclaresNoAttributeIsNotCounted) {
    for (const char* declaration :
         {"<!ELEMENT b (c, d?)>", "<!NOTATION b SYSTEM \"c\">", "<!ATTLIST b>", "<!-- b -->", "<?b c?>"})
        EXPECT_TRUE(XMLParser(declaring(declaration, XMLParser::declaredLimit + 1)).ok) << declaration;
}

TEST(XMLParser, NothingAfterTooManyDeclaredAttributesIsRead) {
    const XMLParser parser(declaring("<!ATTLIST a b CDATA \"c\">", XMLParser::declaredLimit + 1));
    EXPECT_FALSE(parser.ok);
    EXPECT_TRUE(parser.root.children.empty());
}

TEST(XMLParser, ADocumentThatDeclaresAnEntityIsMalformed) {
    for (const char* declaration :
         {"<!ENTITY e \"x\">", "<!ENTITY % e \"x\">", "<!ENTITY e SYSTEM \"file:///etc/hostname\">",
          "<!ENTITY e SYSTEM \"a\" NDATA b>"})
        EXPECT_FALSE(XMLParser(std::string("<!DOCTYPE a [") + declaration + "]><a/>").ok) << declaration;
    EXPECT_TRUE(XMLParser("<!DOCTYPE a []><a/>").ok);
    EXPECT_TRUE(XMLParser("<a>&lt;&amp;&#65;</a>").ok);  // entities that need no declaration
}

TEST(XMLParser, NothingAfterADeclaredEntityIsRead) {
    const XMLParser parser("<!DOCTYPE a [<!ENTITY e \"<b/>\"><!ATTLIST a c CDATA \"d\">]><a>&e;</a>");
    EXPECT_FALSE(parser.ok);
    EXPECT_TRUE(parser.root.children.empty());
}

}  // namespace

}  // namespace gateway
