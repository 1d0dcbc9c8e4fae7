#include <gtest/gtest.h>

#include <cstring>
#include <libxml/parser.h>

#include "ExtXml.h"

namespace {

struct Doc {
    explicit Doc(const char *text) : doc(xmlParseMemory(text, static_cast<int>(std::strlen(text)))) {}
    ~Doc() { xmlFreeDoc(doc); }
    xmlNodePtr Root() const { return xmlDocGetRootElement(doc); }
    xmlDocPtr doc;
};

const xmlChar *X(const char *s) { return reinterpret_cast<const xmlChar *>(s); }

std::string Attr(xmlNodePtr node, const char *name)
{
    xmlChar *v = xmlGetProp(node, X(name));
    std::string s = v ? reinterpret_cast<const char *>(v) : "";
    xmlFree(v);
    return s;
}

} // namespace

TEST(ExtXml, IteratesDirectChildrenOfOneNameInDocumentOrder)
{
    Doc d("<r><a id='1'/>text<b/><a id='2'><a id='nested'/></a><!--c--><A id='upper'/><a id='3'/></r>");
    ASSERT_NE(d.Root(), nullptr);

    std::vector<std::string> ids;
    for (xmlNodePtr n = xmlGetFirstChildNode(d.Root(), X("a")); n; n = xmlGetNextSiblingNode(n, X("a")))
        ids.push_back(Attr(n, "id"));
    // Grandchildren and names that differ only in case are never found.
    EXPECT_EQ(ids, (std::vector<std::string>{"1", "2", "3"}));
}

TEST(ExtXml, NullAndChildlessInputsGiveNull)
{
    Doc d("<r><empty/></r>");
    EXPECT_EQ(xmlGetFirstChildNode(nullptr, X("a")), nullptr);
    EXPECT_EQ(xmlGetNextSiblingNode(nullptr, X("a")), nullptr);
    xmlNodePtr empty = xmlGetFirstChildNode(d.Root(), X("empty"));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(xmlGetFirstChildNode(empty, X("a")), nullptr);
    EXPECT_EQ(xmlGetFirstChildNode(d.Root(), X("missing")), nullptr);
}

TEST(ExtXml, SiblingSearchNeverReturnsTheNodeItself)
{
    Doc d("<r><a id='only'/></r>");
    xmlNodePtr a = xmlGetFirstChildNode(d.Root(), X("a"));
    ASSERT_NE(a, nullptr);
    EXPECT_EQ(xmlGetNextSiblingNode(a, X("a")), nullptr);
}

TEST(ExtXml, NodeTypeIsNotChecked)
{
    // libxml2 names text nodes "text": asking for that name finds one.
    Doc d("<r>hello<text/></r>");
    xmlNodePtr n = xmlGetFirstChildNode(d.Root(), X("text"));
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n->type, XML_TEXT_NODE);
    xmlNodePtr e = xmlGetNextSiblingNode(n, X("text"));
    ASSERT_NE(e, nullptr);
    EXPECT_EQ(e->type, XML_ELEMENT_NODE);
}
