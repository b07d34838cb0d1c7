#include "logger_setting/logger_setting_manager.h"

#include <Poco/AutoPtr.h>
#include <Poco/DOM/DOMParser.h>
#include <Poco/DOM/Document.h>
#include <Poco/Exception.h>
#include <Poco/File.h>

#include <cstdlib>
#include <exception>

#include "log/logger_log.h"
#include "xml_node/xml_node.h"

namespace tmsc {

namespace {
const std::string& kLogTag = ConstantString("LSettingMgr");
constexpr std::size_t kSettingMapBuckets = 10;
// Bytes. Elements within elements are read recursively: a larger file could exhaust the stack.
constexpr Poco::File::FileSize kSettingFileSizeMax = 64 * 1024;
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
  try {
    // UTF-8 unless the file declares another encoding: to set one here would override the file.
    Poco::XML::DOMParser parser;
    const std::string path = SettingFilePath();
    if (Poco::File(path).getSize() > kSettingFileSizeMax) {
      return;
    }
    const Poco::AutoPtr<Poco::XML::Document> document = parser.parse(path);
    Poco::XML::Node* root = document->getNodeByPath("/LoggerSetting");
    if (root == nullptr) {
      return;
    }
    const XmlNode tree(nullptr, root);
    for (const auto& setting : tree.GetChildren()) {
      logger_setting_map_[setting->GetTag()] = setting->GetValue();
    }
  } catch (const Poco::Exception&) {
    // The defaults hold. Nobody to tell: the log is set up from these settings.
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
  const std::string text =
      kSettingTagTamselComStartComFailedCloseCount + ":" + std::to_string(count);
  if (count >= kTamselComStartComFailedCloseCountMin &&
      count <= kTamselComStartComFailedCloseCountMax) {
    LoggerLog::Verbose(kLogTag, text);
    return count;
  }
  LoggerLog::Error(kLogTag, text + "->" + std::to_string(kTamselComStartComFailedCloseCountInit));
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

void LoggerSettingManager::TestLoggerSetting() {
  const auto log_value = [](const std::string& label, const std::string& value) {
    LoggerLog::Debug(kLogTag, "[" + label + "] = [" + value + "]");
  };
  const std::string rule(27, '-');
  LoggerLog::Debug(kLogTag, rule);
  log_value("GetComSocketPath", GetComSocketPath());
  log_value("GetTamselComWatchdogPath", GetTamselComWatchdogPath());
  log_value("GetWatchdogFileUpdateInterval", std::to_string(GetWatchdogFileUpdateInterval()));
  log_value("GetMaxLogRollIndex", std::to_string(GetMaxLogRollIndex()));
  log_value("GetMaxLogFileSize", GetMaxLogFileSize());
  log_value("GetLogDirectory", GetLogDirectory());
  log_value("IsEnableLogBufferedIO", IsEnableLogBufferedIO() ? "1" : "0");
  log_value("LoggerLogMaxBufferedSize", std::to_string(GetLoggerLogMaxBufferdSize()));
  log_value("GetMWApiRetryCount", std::to_string(GetMWApiRetryCount()));
  log_value("GetMWApiRetryInterval", std::to_string(GetMWApiRetryInterval()));
  LoggerLog::Debug(kLogTag, rule);
}

}  // namespace tmsc
