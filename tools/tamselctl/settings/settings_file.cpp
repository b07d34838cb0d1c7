#include "settings/settings_file.h"

#include <Poco/SAX/Attributes.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/LexicalHandler.h>
#include <Poco/SAX/Locator.h>
#include <Poco/SAX/SAXException.h>
#include <Poco/SAX/SAXParser.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "logger_setting/logger_setting_manager.h"
#include "shared/regular_file.h"
#include "utility/descriptor.h"
#include "utility/string_util.h"

namespace tmsc::ctl {
namespace {

using Poco::XML::XMLString;

constexpr const char* kRoot = "LoggerSetting";

bool IsBlank(const std::string& text) {
  return text.find_first_not_of(" \t\r\n") == std::string::npos;
}

/// Notes keys, their texts and where they stand, and all that the daemon passes over.
class SettingsReader : public Poco::XML::DefaultHandler, public Poco::XML::LexicalHandler {
 public:
  SettingsFile Take() { return std::move(file_); }
  bool IsRootRight() const { return is_root_right_; }
  int Deepest() const { return deepest_; }

  void setDocumentLocator(const Poco::XML::Locator* locator) override { locator_ = locator; }

  void startElement(const XMLString&, const XMLString&, const XMLString& name,
                    const Poco::XML::Attributes& attributes) override {
    deepest_ = std::max(deepest_, ++depth_);
    is_in_text_ = false;
    if (depth_ == 1) {
      is_root_right_ = name == kRoot;
      if (!is_root_right_) {
        AddMistake("", "the root element is " + name + " and not " + kRoot +
                           ": the file counts as missing, all defaults hold");
      }
    } else if (depth_ == 2) {
      file_.entries.push_back({name, "", Line(), Column()});
      if (attributes.getLength() > 0) {
        AddMistake(name, "attributes are not read");
      }
    } else if (depth_ == 3) {
      AddMistake(Key(), "elements within the value, here " + name + ", are not read");
    }
  }
  void endElement(const XMLString&, const XMLString&, const XMLString&) override {
    --depth_;
    is_in_text_ = false;
  }
  void characters(const Poco::XML::XMLChar text[], int start, int length) override {
    const std::string part(text + start, static_cast<std::size_t>(length));
    if (depth_ == 1 && !IsBlank(part)) {
      AddMistake("", "text between the keys is not read: " + StringUtil::Trim(part));
    }
    if (depth_ != 2) {
      return;
    }
    if (is_in_cdata_) {
      AddMistake(Key(), "a CDATA section is not read");
      return;
    }
    std::string& value = file_.entries.back().value;
    if (!is_in_text_ && !IsBlank(value)) {
      AddMistake(Key(), "of a value that something stands within only the last part counts");
    }
    value = is_in_text_ ? value + part : part;
    is_in_text_ = true;
  }
  void processingInstruction(const XMLString&, const XMLString&) override { is_in_text_ = false; }

  void startCDATA() override {
    is_in_cdata_ = true;
    is_in_text_ = false;
  }
  void endCDATA() override { is_in_cdata_ = false; }
  void comment(const Poco::XML::XMLChar[], int, int) override { is_in_text_ = false; }
  void startDTD(const XMLString&, const XMLString&, const XMLString&) override {}
  void endDTD() override {}
  void startEntity(const XMLString&) override {}
  void endEntity(const XMLString&) override {}

 private:
  int Line() const { return locator_ != nullptr ? locator_->getLineNumber() : 0; }
  int Column() const { return locator_ != nullptr ? locator_->getColumnNumber() + 1 : 0; }
  std::string Key() const { return file_.entries.back().key; }
  void AddMistake(const std::string& key, const std::string& text) {
    file_.mistakes.push_back({Line(), Column(), key, text});
  }

  const Poco::XML::Locator* locator_ = nullptr;
  SettingsFile file_;
  int depth_ = 0;
  int deepest_ = 0;
  bool is_root_right_ = false;
  bool is_in_text_ = false;
  bool is_in_cdata_ = false;
};

/// Throws what the parser does.
SettingsFile ParseSettings(const std::string& text, const std::string& encoding) {
  SettingsReader reader;
  Poco::XML::SAXParser parser;
  if (!encoding.empty()) {
    parser.setEncoding(encoding);
  }
  parser.setFeature(Poco::XML::XMLReader::FEATURE_NAMESPACE_PREFIXES, true);
  parser.setContentHandler(&reader);
  parser.setProperty(Poco::XML::XMLReader::PROPERTY_LEXICAL_HANDLER,
                     static_cast<Poco::XML::LexicalHandler*>(&reader));
  parser.parseString(text);
  SettingsFile file = reader.Take();
  if (reader.Deepest() > kSettingDepthMax) {
    file.mistakes.push_back({0, 0, "",
                             "more than " + std::to_string(kSettingDepthMax) +
                                 " elements within each other: all defaults hold"});
  }
  if (reader.Deepest() > kSettingDepthMax || !reader.IsRootRight()) {
    file.entries.clear();
  }
  return file;
}

/// Why the daemon passes over what is there; empty when it reads it.
std::string WhyNotTaken(const std::string& path) {
  const RegularFile file = OpenRegularFile(path);
  if (!file.obstacle.empty()) {
    return file.obstacle;
  }
  return file.size > kSettingFileSizeMax ? "is larger than 8 MiB" : "";
}

}  // namespace

SettingsFile ReadSettingsFile(const std::string& path) {
  SettingsFile file;
  const std::string obstacle = WhyNotTaken(path);
  if (!obstacle.empty()) {
    file.mistakes.push_back({0, 0, "", obstacle + ": all defaults hold"});
    return file;
  }
  const std::string text = StringUtil::LoadFromFile(path);
  try {
    file = ParseSettings(text, "");
  } catch (const Poco::Exception& failure) {
    const auto* const place = dynamic_cast<const Poco::XML::SAXParseException*>(&failure);
    Mistake mistake{place != nullptr ? place->getLineNumber() : 0,
                    place != nullptr ? place->getColumnNumber() + 1 : 0, "", failure.message()};
    // It says again where, counting columns from 0.
    mistake.text.erase(std::min(mistake.text.find(" in line "), mistake.text.size()));
    try {
      file = ParseSettings(text, "UTF-8");
      mistake.text = "cannot be read in the encoding that it declares; read as UTF-8";
    } catch (const Poco::Exception&) {
      mistake.text = "not well-formed: " + mistake.text + "; all defaults hold";
    }
    file.mistakes.insert(file.mistakes.begin(), mistake);
  }
  file.is_found = true;
  return file;
}

}  // namespace tmsc::ctl
