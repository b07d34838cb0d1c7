#include "xml_node/xml_node.h"

#include <Poco/DOM/DOMWriter.h>
#include <Poco/DOM/NamedNodeMap.h>
#include <Poco/DOM/Text.h>
#include <Poco/Exception.h>
#include <Poco/FileStream.h>
#include <Poco/RegularExpression.h>
#include <Poco/StringTokenizer.h>
#include <Poco/XML/XMLWriter.h>

#include "log/log_text.h"
#include "utility/constant_string.h"

namespace tmsc {

namespace {

const std::string& kLogTag = ConstantString("XmlNode");
const std::string& kAttributeStepPattern =
    ConstantString(R"(([a-zA-Z0-9]+)\[([a-zA-Z0-9]+):([a-zA-Z0-9]+)\])");
constexpr std::size_t kAttributeMapBuckets = 10;
constexpr int kWriterOptions =
    Poco::XML::XMLWriter::WRITE_XML_DECLARATION | Poco::XML::XMLWriter::PRETTY_PRINT;
static_assert(kWriterOptions == 6);

/// One step of a search path: a tag and, when the name is not empty, an attribute to compare.
struct SearchStep {
  std::string tag;
  std::string attribute_name;
  std::string attribute_value;
};

SearchStep ParseStep(const std::string& step) {
  Poco::RegularExpression pattern(kAttributeStepPattern);
  Poco::RegularExpression::Match found;
  if (pattern.match(step, found) == 0) {
    return {step, "", ""};
  }
  const auto group = [&](const std::string& replacement) {
    std::string text = step;
    pattern.subst(text, replacement);
    return text;
  };
  return {group("$1"), group("$2"), group("$3")};
}

bool Matches(const XmlNode& node, const SearchStep& step) {
  return node.GetTag() == step.tag &&
         (step.attribute_name.empty() ||
          node.GetAttribute(step.attribute_name) == step.attribute_value);
}

}  // namespace

XmlNode::XmlNode(XmlNode* parent, Poco::XML::Node* node) : XmlNode(node->nodeName()) {
  if (node->hasAttributes()) {
    const Poco::AutoPtr<Poco::XML::NamedNodeMap> attributes = node->attributes();
    for (unsigned long i = 0; i < attributes->length(); ++i) {
      const Poco::XML::Node* attribute = attributes->item(i);
      (*attr_data_map_)[attribute->nodeName()] = attribute->innerText();
    }
  }
  if (parent == nullptr && !node->namespaceURI().empty()) {
    (*attr_data_map_)["xmlns"] = node->namespaceURI();
  }
  for (Poco::XML::Node* child = node->firstChild(); child != nullptr;
       child = child->nextSibling()) {
    if (child->nodeType() == Poco::XML::Node::TEXT_NODE) {
      value_ = child->getNodeValue();
    } else if (child->nodeType() == Poco::XML::Node::ELEMENT_NODE) {
      child_node_list_->push_back(std::make_unique<XmlNode>(this, child));
    }
  }
}

XmlNode::XmlNode(const std::string& tag)
    : tag_(tag),
      attr_data_map_(
          std::make_unique<std::unordered_map<std::string, std::string>>(kAttributeMapBuckets)),
      child_node_list_(std::make_unique<Children>()) {}

XmlNode::~XmlNode() = default;

void XmlNode::SetValue(const std::string& value) {
  value_ = value;
}

std::string XmlNode::GetAttribute(const std::string& key) const {
  const auto found = attr_data_map_->find(key);
  return found == attr_data_map_->end() ? std::string() : found->second;
}

std::string XmlNode::GetChileNodeValue(const std::string& child_node_name) {
  for (const auto& child : *child_node_list_) {
    if (child->tag_ == child_node_name) {
      return child->value_;
    }
  }
  return {};
}

XmlNode* XmlNode::SearchNode(const std::string& search_path) {
  XmlNode* found = nullptr;
  const Children* candidates = child_node_list_.get();
  for (const std::string& step_text : Poco::StringTokenizer(search_path, "/")) {
    const SearchStep step = ParseStep(step_text);
    found = nullptr;
    for (const auto& candidate : *candidates) {
      if (Matches(*candidate, step)) {
        found = candidate.get();
      }
    }
    if (found == nullptr) {
      return nullptr;
    }
    candidates = found->child_node_list_.get();
  }
  return found;
}

std::string XmlNode::ToString() {
  std::string text = "<" + tag_;
  for (const auto& [name, value] : *attr_data_map_) {
    text.append(" ").append(name).append("=\"").append(value).append("\"");
  }
  if (child_node_list_->empty()) {
    text.append(">").append(value_);
  } else {
    text.append(">\n");
    for (const auto& child : *child_node_list_) {
      text.append(child->ToString());
    }
  }
  return text.append("</").append(tag_).append(">\n");
}

Poco::AutoPtr<Poco::XML::Element> XmlNode::CreateElement(const Poco::XML::Document& document) {
  Poco::AutoPtr<Poco::XML::Element> element = document.createElement(tag_);
  for (const auto& [name, value] : *attr_data_map_) {
    element->setAttribute(name, value);
  }
  for (const auto& child : *child_node_list_) {
    element->appendChild(child->CreateElement(document));
  }
  if (!value_.empty()) {
    Poco::AutoPtr<Poco::XML::Text> text = document.createTextNode(value_);
    element->appendChild(text);
  }
  return element;
}

bool XmlNode::WriteToXmlFile(const std::string& path) {
  try {
    Poco::AutoPtr<Poco::XML::Document> document = new Poco::XML::Document;
    document->appendChild(CreateElement(*document));
    Poco::FileOutputStream file(path, std::ios::out | std::ios::trunc);
    Poco::XML::DOMWriter writer;
    writer.setNewLine("\n");
    writer.setOptions(kWriterOptions);
    writer.writeNode(file, document);
    file.close();
    if (file.fail()) {
      throw Poco::WriteFileException(path);
    }
    return true;
  } catch (const Poco::Exception& failure) {
    LoggerLog::Error(kLogTag, LogText("Write xml fail (Exception). path[", path, "] message[",
                                      failure.displayText(), "]"));
    return false;
  }
}

}  // namespace tmsc
