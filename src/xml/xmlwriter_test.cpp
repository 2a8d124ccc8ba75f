#include "xml/xmlwriter.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

TEST(XMLWriter, LeafSitsOnOneLineWithItsText) {
    EXPECT_EQ(toXml(XMLNode("a", "text")), "<a>text</a>\r\n");
}

TEST(XMLWriter, EmptyElementHasAnOpeningAndAClosingTag) {
    EXPECT_EQ(toXml(XMLNode("a")), "<a></a>\r\n");
}

TEST(XMLWriter, ChildIsIndentedByTwoBlanks) {
    XMLNode node("a");
    node.addSubNode("b", "1");
    EXPECT_EQ(toXml(node), "<a>\r\n  <b>1</b>\r\n</a>\r\n");
}

TEST(XMLWriter, EachLevelIsIndentedByTwoMoreBlanks) {
    XMLNode inner("b");
    inner.addSubNode("c", "1");
    inner.addSubNode("d", "2");
    XMLNode node("a");
    node.addSubNode(inner);
    node.addSubNode("e", "3");
    EXPECT_EQ(toXml(node),
              "<a>\r\n"
              "  <b>\r\n"
              "    <c>1</c>\r\n"
              "    <d>2</d>\r\n"
              "  </b>\r\n"
              "  <e>3</e>\r\n"
              "</a>\r\n");
}

TEST(XMLWriter, ValueOfAnElementWithChildrenIsNotWritten) {
    XMLNode node("a", "lost");
    node.addSubNode("b", "1");
    EXPECT_EQ(toXml(node), "<a>\r\n  <b>1</b>\r\n</a>\r\n");
}

TEST(XMLWriter, AttributesFollowTheNameInOrder) {
    XMLNode node("s:a", "1");
    node.addProperty("xmlns:s", "urn:x");
    node.addProperty("b", "");
    EXPECT_EQ(toXml(node), "<s:a xmlns:s=\"urn:x\" b=\"\">1</s:a>\r\n");
}

TEST(XMLWriter, NothingIsEscaped) {
    XMLNode node("a", "<&>\"");
    node.addProperty("b", "say \"so\" & <go>");
    EXPECT_EQ(toXml(node), "<a b=\"say \"so\" & <go>\"><&>\"</a>\r\n");
}

TEST(XMLWriter, DocumentBeginsWithADeclarationWithoutEncoding) {
    EXPECT_EQ(toXmlDocument(XMLNode("a", "1")), "<?xml version=\"1.0\"?>\r\n<a>1</a>\r\n");
}

TEST(XMLWriter, WritingTwiceGivesTheSameText) {
    XMLNode node("a");
    node.addSubNode("b", "1");
    const std::string first = toXml(node);
    EXPECT_EQ(toXml(node), first);
}

}  // namespace

}  // namespace gateway
