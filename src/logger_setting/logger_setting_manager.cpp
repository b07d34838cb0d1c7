#include "logger_setting/logger_setting_manager.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/SAX/DefaultHandler.h>
#include <Poco/SAX/SAXParser.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <exception>

#include "log/log_text.h"
#include "utility/descriptor.h"
#include "xml_node/xml_node.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("LSettingMgr");
constexpr std::size_t kSettingMapBuckets = 10;

/// The content of a regular file; empty for anything else, of which a pipe would hold up the start.
std::string ReadRegularFile(const std::string& path) {
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  struct stat status {};
  if (!file.IsOpen() || ::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode)) {
    return {};
  }
  std::string text;
  char part[4096];
  for (ssize_t count = 0; (count = ::read(file.Get(), part, sizeof(part))) > 0;) {
    text.append(part, static_cast<std::size_t>(count));
    if (text.size() > kSettingFileSizeMax) {
      return {};
    }
  }
  return text;
}

/// An empty encoding leaves the text's own.
template <typename Parser>
void SetEncoding(Parser& parser, const std::string& encoding) {
  if (!encoding.empty()) {
    parser.setEncoding(encoding);
  }
}

/// Parses the text without a tree, which would be copied and freed recursively.
bool IsTooDeep(const std::string& text, const std::string& encoding) {
  class DepthMeter : public Poco::XML::DefaultHandler {
   public:
    void startElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                      const Poco::XML::XMLString&, const Poco::XML::Attributes&) override {
      deepest = std::max(deepest, ++depth);
    }
    void endElement(const Poco::XML::XMLString&, const Poco::XML::XMLString&,
                    const Poco::XML::XMLString&) override {
      --depth;
    }
    int depth = 0;
    int deepest = 0;
  };
  DepthMeter meter;
  Poco::XML::SAXParser parser;
  SetEncoding(parser, encoding);
  parser.setContentHandler(&meter);
  parser.parseString(text);
  return meter.deepest > kSettingDepthMax;
}
}  // namespace

LoggerSettingManager::LoggerSettingManager() : logger_setting_map_(kSettingMapBuckets) {
  SetupDefaultSetting();
  LoadXml();
}

std::string LoggerSettingManager::SettingFilePath() {
  const char* path = std::getenv(kLoggerSettingFileVariable.c_str());
  return path != nullptr && *path != '\0' ? path : kLoggerSettingXmlFilePath;
}

void LoggerSettingManager::SetupDefaultSetting() {
  logger_setting_map_[kSettingTagTamselComWatchdogPath] = "/mnt/system/check/tmsc";
  logger_setting_map_[kSettingTagComSocketPath] = "/mnt/system/tmscom/tamsel.com";
  logger_setting_map_[kSettingTagWatchdogFileUpdateInterval] = "30";
  logger_setting_map_[kSettingTagSDCardPath] = "/media/sdcard";
  logger_setting_map_[kSettingTagMaxLogRollIndex] = "12";
  logger_setting_map_[kSettingTagMaxLogFileSize] = "500KB";
  logger_setting_map_[kSettingTagTamselComStartComFailedCloseCount] =
      std::to_string(kTamselComStartComFailedCloseCountInit);
}

void LoggerSettingManager::LoadXml() {
  const std::string text = ReadRegularFile(SettingFilePath());
  // As the file declares its encoding; the parser knows only a few. The keys, at least, are ASCII,
  // so most files in another one read well as UTF-8.
  for (const char* const encoding : {"", "UTF-8"}) {
    try {
      if (!IsTooDeep(text, encoding)) {
        TakeSettings(text, encoding);
      }
      return;
    } catch (const std::exception&) {
      // The defaults hold. Nobody to tell: the log is set up from these settings.
    }
  }
}

void LoggerSettingManager::TakeSettings(const std::string& text, const std::string& encoding) {
  Poco::XML::DOMParser parser;
  SetEncoding(parser, encoding);
  const Poco::AutoPtr<Poco::XML::Document> document = parser.parseString(text);
  Poco::XML::Node* root = document->getNodeByPath("/LoggerSetting");
  if (root == nullptr) {
    return;
  }
  const XmlNode tree(nullptr, root);
  for (const auto& setting : tree.GetChildren()) {
    logger_setting_map_[setting->GetTag()] = setting->GetValue();
  }
}

std::string LoggerSettingManager::Find(const std::string& key) const {
  const auto found = logger_setting_map_.find(key);
  return found == logger_setting_map_.end() ? std::string() : found->second;
}

int LoggerSettingManager::GetIntvalueFromSettingItems(const std::string& key, int default_value) {
  const std::string text = Find(key);
  if (text.empty()) {
    return default_value;
  }
  try {
    return std::stoi(text);
  } catch (const std::exception&) {
    return default_value;
  }
}

std::string LoggerSettingManager::GetTamselComWatchdogPath() {
  return Find(kSettingTagTamselComWatchdogPath);
}

std::string LoggerSettingManager::GetComSocketPath() {
  return Find(kSettingTagComSocketPath);
}

int LoggerSettingManager::GetWatchdogFileUpdateInterval() {
  return GetIntvalueFromSettingItems(kSettingTagWatchdogFileUpdateInterval, 30);
}

std::string LoggerSettingManager::GetLogDirectory() {
  return Find(kSettingTagSDCardPath) + "/velmorahome/Log";
}

int LoggerSettingManager::GetMaxLogRollIndex() {
  return GetIntvalueFromSettingItems(kSettingTagMaxLogRollIndex, 12);
}

std::string LoggerSettingManager::GetMaxLogFileSize() {
  return Find(kSettingTagMaxLogFileSize);
}

int LoggerSettingManager::GetTamselComStartComFailedCloseCount() {
  const int count = GetIntvalueFromSettingItems(kSettingTagTamselComStartComFailedCloseCount,
                                                kTamselComStartComFailedCloseCountInit);
  const std::string text = LogText(kSettingTagTamselComStartComFailedCloseCount, ":", count);
  if (count >= kTamselComStartComFailedCloseCountMin &&
      count <= kTamselComStartComFailedCloseCountMax) {
    LoggerLog::Verbose(kLogTag, text);
    return count;
  }
  LoggerLog::Error(kLogTag, LogText(text, "->", kTamselComStartComFailedCloseCountInit));
  return kTamselComStartComFailedCloseCountInit;
}

bool LoggerSettingManager::IsEnableLogBufferedIO() {
  return GetIntvalueFromSettingItems(kSettingTagEnableLogBufferedIO, 1) != 0;
}

int LoggerSettingManager::GetLogLevel() {
  return GetIntvalueFromSettingItems(kSettingTagLogLevel, kLoggerLogLogLevelDefault);
}

int LoggerSettingManager::GetLoggerLogMaxBufferdSize() {
  return GetIntvalueFromSettingItems(kSettingTagLoggerLogMaxBufferedSize, 4096);
}

int LoggerSettingManager::GetMWApiRetryCount() {
  return GetIntvalueFromSettingItems(kSettingTagApiRetryCount, 3);
}

int LoggerSettingManager::GetMWApiRetryInterval() {
  return GetIntvalueFromSettingItems(kSettingTagApiRetryInterval, 100);
}

std::optional<int> LoggerSettingManager::GetTcpDrainTimeout() {
  const int timeout = GetIntvalueFromSettingItems(kSettingTagTcpDrainTimeout, -1);
  return timeout >= 0 ? std::optional<int>(timeout) : std::nullopt;
}

bool LoggerSettingManager::IsTcpReuseCheck() {
  return GetIntvalueFromSettingItems(kSettingTagTcpReuseCheck, 0) != 0;
}

int LoggerSettingManager::GetRs485StartWait() {
  constexpr int kDefaultMs = 200;
  const int wait = GetIntvalueFromSettingItems(kSettingTagRs485StartWait, kDefaultMs);
  return wait >= 0 ? wait : kDefaultMs;
}

std::string LoggerSettingManager::GetHealthFilePath() {
  return Find(kSettingTagHealthFilePath);
}

void LoggerSettingManager::TestLoggerSetting() {
  const auto log_value = [](const char* label, const auto& value) {
    LoggerLog::Debug(kLogTag, LogText("[", label, "] = [", value, "]"));
  };
  const std::string rule(27, '-');
  LoggerLog::Debug(kLogTag, rule);
  log_value("GetComSocketPath", GetComSocketPath());
  log_value("GetTamselComWatchdogPath", GetTamselComWatchdogPath());
  log_value("GetWatchdogFileUpdateInterval", GetWatchdogFileUpdateInterval());
  log_value("GetMaxLogRollIndex", GetMaxLogRollIndex());
  log_value("GetMaxLogFileSize", GetMaxLogFileSize());
  log_value("GetLogDirectory", GetLogDirectory());
  log_value("IsEnableLogBufferedIO", IsEnableLogBufferedIO());
  log_value("LoggerLogMaxBufferedSize", GetLoggerLogMaxBufferdSize());
  log_value("GetMWApiRetryCount", GetMWApiRetryCount());
  log_value("GetMWApiRetryInterval", GetMWApiRetryInterval());
  LoggerLog::Debug(kLogTag, rule);
}

}  // namespace tmsc
