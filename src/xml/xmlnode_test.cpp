#include "xml/xmlnode.h"

#include <gtest/gtest.h>

namespace gateway {

namespace {

TEST(XMLNode, ConstructorsFillNameAndValue) {
    EXPECT_EQ(XMLNode().name, "");
    EXPECT_EQ(XMLNode("a").name, "a");
    EXPECT_EQ(XMLNode("a", "1").value, "1");
}

TEST(XMLNode, ChildrenAndAttributesKeepTheirOrderAndDuplicates) {
    XMLNode node("a");
    node.addSubNode("y", "1");
    node.addSubNode(XMLNode("x", "2"));
    node.addSubNode("y", "3");
    node.addProperty("q", "1");
    node.addProperty("p", "2");
    node.addProperty("q", "3");
    EXPECT_EQ(node.children, (std::vector<XMLNode>{{"y", "1"}, {"x", "2"}, {"y", "3"}}));
    EXPECT_EQ(node.properties, (std::vector<XMLProp>{{"q", "1"}, {"p", "2"}, {"q", "3"}}));
}

TEST(XMLNode, SetValReplacesTheValue) {
    XMLNode node("a", "1");
    node.setVal("2");
    EXPECT_EQ(node, XMLNode("a", "2"));
}

TEST(XMLNode, ACopyIsIndependentDownToItsLeaves) {
    XMLNode inner("inner");
    inner.addSubNode("leaf", "1");
    XMLNode outer("outer");
    outer.addSubNode(inner);
    const XMLNode copy = outer;
    outer.children[0].children[0].setVal("2");
    EXPECT_EQ(copy.children[0].children[0].value, "1");
    EXPECT_EQ(inner.children[0].value, "1");
}

}  // namespace

}  // namespace gateway
