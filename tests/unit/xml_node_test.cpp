#include "xml_node/xml_node.h"

#include <Poco/DOM/DOMParser.h>
#include <gtest/gtest.h>

#include "support/files.h"

namespace tmsc {
namespace {

std::unique_ptr<XmlNode> Parse(const std::string& xml) {
  Poco::AutoPtr<Poco::XML::Document> document = Poco::XML::DOMParser().parseString(xml);
  return std::make_unique<XmlNode>(nullptr, document->documentElement());
}

constexpr char kTree[] =
    "<r xmlns=\"urn:x\" v=\"1\"><a id=\"1\"><b id=\"1\">p</b><b id=\"2\">q</b></a>"
    "<a id=\"2\"><b id=\"2\">s</b><b id=\"2\">t</b></a><x>u</x><c-a c-id=\"c-7\">v</c-a></r>";

TEST(XmlNodeTest, SearchTakesTheLastMatchOfEachStep) {
  const auto tree = Parse(kTree);
  using Row = std::pair<const char*, const char*>;
  for (const auto& [path, value] :
       {Row{"x", "u"}, Row{"a/b", "t"}, Row{"a[id:1]/b[id:1]", "p"}, Row{"a/b[id:1]", "none"},
        Row{"/x", "none"}, Row{"x/", "none"}, Row{"", "none"}, Row{"x[a-b:c]", "none"},
        Row{"c-a[id:7]", "v"}, Row{"r", "none"}}) {
    const XmlNode* found = tree->SearchNode(path);
    EXPECT_EQ(found != nullptr ? found->GetValue() : "none", value) << path;
  }
}

TEST(XmlNodeTest, AttributesTextAndForm) {
  const auto tree = Parse(kTree);
  EXPECT_EQ(tree->GetAttribute("xmlns"), "urn:x");
  EXPECT_EQ(tree->GetAttribute("none"), "");
  EXPECT_EQ(tree->GetChileNodeValue("x"), "u");
  EXPECT_EQ(tree->GetChileNodeValue("none"), "");
  EXPECT_EQ(tree->GetChildren()[0]->ToString(),
            "<a id=\"1\">\n<b id=\"1\">p</b>\n<b id=\"2\">q</b>\n</a>\n");
  EXPECT_EQ(XmlNode("leaf").ToString(), "<leaf></leaf>\n");
}

TEST(XmlNodeTest, AWrittenTreeReadsBack) {
  const test::TempFolder folder;
  const auto tree = Parse("<r v=\"a&amp;b\"><x>1 &lt; 2</x><y/></r>");
  ASSERT_TRUE(tree->WriteToXmlFile(folder.Path("tree.xml")));
  EXPECT_EQ(Parse(test::ReadFile(folder.Path("tree.xml")))->ToString(), tree->ToString());
  EXPECT_FALSE(tree->WriteToXmlFile(folder.Path("missing/tree.xml")));
  EXPECT_FALSE(tree->WriteToXmlFile("/dev/full"));
}

}  // namespace
}  // namespace tmsc
