#include "xml_node/xml_node.h"

#include <Poco/DOM/DOMParser.h>
#include <gtest/gtest.h>

#include <string>

#include "support/files.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

std::unique_ptr<XmlNode> Parse(const std::string& xml) {
  Poco::XML::DOMParser parser;
  const Poco::AutoPtr<Poco::XML::Document> document = parser.parseString(xml);
  Poco::AutoPtr<Poco::XML::Document> owned = document;
  return std::make_unique<XmlNode>(nullptr, owned->documentElement());
}

constexpr char kTree[] =
    "<r xmlns=\"urn:x\" v=\"1\"><a id=\"1\"><b id=\"1\">p</b><b id=\"2\">q</b></a>"
    "<a id=\"2\"><b id=\"2\">s</b><b id=\"2\">t</b></a><x>u</x><c-a c-id=\"c-7\">v</c-a></r>";

TEST(XmlNodeTest, SearchTakesTheLastMatchOfEachStep) {
  const auto tree = Parse(kTree);
  struct Case {
    const char* path;
    const char* value;  // null: nothing found
  };
  for (const Case& c :
       {Case{"x", "u"}, Case{"a/b", "t"}, Case{"a[id:1]/b[id:1]", "p"}, Case{"a/b[id:1]", nullptr},
        Case{"/x", nullptr}, Case{"x/", nullptr}, Case{"", nullptr}, Case{"x[a-b:c]", nullptr},
        Case{"c-a[id:7]", "v"}, Case{"r", nullptr}}) {
    const XmlNode* found = tree->SearchNode(c.path);
    ASSERT_EQ(found != nullptr, c.value != nullptr) << c.path;
    if (found != nullptr) {
      EXPECT_EQ(found->GetValue(), c.value) << c.path;
    }
  }
}

TEST(XmlNodeTest, AttributesTextAndForm) {
  const auto tree = Parse(kTree);
  EXPECT_EQ(tree->GetAttribute("v"), "1");
  EXPECT_EQ(tree->GetAttribute("xmlns"), "urn:x");
  EXPECT_EQ(tree->GetAttribute("none"), "");
  EXPECT_EQ(tree->GetChildren()[0]->GetAttribute("xmlns"), "");
  EXPECT_EQ(tree->GetChileNodeValue("x"), "u");
  EXPECT_EQ(tree->GetChileNodeValue("none"), "");
  EXPECT_EQ(tree->SearchNode("x")->ToString(), "<x>u</x>\n");
  EXPECT_EQ(tree->GetChildren()[0]->ToString(),
            "<a id=\"1\">\n<b id=\"1\">p</b>\n<b id=\"2\">q</b>\n</a>\n");
  XmlNode leaf("leaf");
  EXPECT_EQ(leaf.ToString(), "<leaf></leaf>\n");
}

TEST(XmlNodeTest, AWrittenTreeReadsBack) {
  const test::TempFolder folder;
  const std::string path = folder.Path("tree.xml");
  auto tree = Parse("<r v=\"a&amp;b\"><x>1 &lt; 2</x><y/></r>");
  ASSERT_TRUE(tree->WriteToXmlFile(path));
  const auto again = Parse(StringUtil::LoadFromFile(path));
  EXPECT_EQ(again->GetAttribute("v"), "a&b");
  EXPECT_EQ(again->GetChileNodeValue("x"), "1 < 2");
  EXPECT_EQ(again->GetChildren().size(), 2u);
  EXPECT_FALSE(tree->WriteToXmlFile(folder.Path("missing/tree.xml")));
  EXPECT_FALSE(tree->WriteToXmlFile("/dev/full"));
}

}  // namespace
}  // namespace tmsc
