#ifndef TAMSEL_XML_NODE_XML_NODE_H_
#define TAMSEL_XML_NODE_XML_NODE_H_

#include <Poco/AutoPtr.h>
#include <Poco/DOM/Document.h>
#include <Poco/DOM/Element.h>
#include <Poco/DOM/Node.h>

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

namespace tmsc {

/// A small tree of XML elements: tag, attributes, text, child elements. A tree belongs to one
/// thread.
class XmlNode {
 public:
  using Children = std::vector<std::unique_ptr<XmlNode>>;

  /// Copies a DOM node and its child elements. `parent` is null for the root of a tree. Comments,
  /// CDATA sections and processing instructions are left out; of several text nodes the last
  /// counts.
  XmlNode(XmlNode* parent, Poco::XML::Node* node);
  explicit XmlNode(const std::string& tag);
  virtual ~XmlNode();
  XmlNode(const XmlNode&) = delete;
  XmlNode& operator=(const XmlNode&) = delete;

  const std::string& GetTag() const { return tag_; }
  const std::string& GetValue() const { return value_; }
  const Children& GetChildren() const { return *child_node_list_; }

  void SetValue(const std::string& value);
  /// Empty when there is no such attribute.
  std::string GetAttribute(const std::string& key) const;
  /// Text of the first child with that tag; empty when there is none.
  std::string GetChileNodeValue(const std::string& child_node_name);
  /// The descendant at a path such as "a/b[id:2]": below the last child a, the last child b whose
  /// attribute id is 2. Null when there is none; owned by the tree.
  XmlNode* SearchNode(const std::string& search_path);
  /// The subtree as text, without escaping.
  std::string ToString();
  /// A DOM element for the subtree, created in `document`.
  Poco::AutoPtr<Poco::XML::Element> CreateElement(const Poco::XML::Document& document);
  /// Writes the subtree as a file of its own; false, and an Error line, when the XML library or the
  /// file system refuses.
  bool WriteToXmlFile(const std::string& path);

 private:
  std::string tag_;
  std::unique_ptr<std::unordered_map<std::string, std::string>> attr_data_map_;
  std::string value_;
  std::unique_ptr<Children> child_node_list_;
};

}  // namespace tmsc

#endif  // TAMSEL_XML_NODE_XML_NODE_H_
