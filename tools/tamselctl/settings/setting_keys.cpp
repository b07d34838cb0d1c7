#include "settings/setting_keys.h"

#include <algorithm>
#include <limits>

#include "log/log_file_output.h"
#include "utility/string_util.h"

namespace tmsc::ctl {
namespace {

constexpr int kIntMax = std::numeric_limits<int>::max();
// Where a consumer of a getter has a value of its own in place of one that it cannot use.
constexpr int kLongestWatchdogSeconds = kIntMax / 1000;
constexpr int kMostRolled = 9999;
constexpr int kOwnFileSize = 10 * 1024 * 1024;
constexpr int kOwnBufferSize = 8 * 1024;

using Settings = LoggerSettingManager;

std::string WatchdogInterval(Settings& settings) {
  const int seconds = settings.GetWatchdogFileUpdateInterval();
  return std::to_string(seconds < 0 ? 30 : std::min(seconds, kLongestWatchdogSeconds));
}

std::string FileSize(Settings& settings) {
  const int size = StringUtil::StringFileSizeToLogFileSize(settings.GetMaxLogFileSize());
  return std::to_string(size > 0 ? size : kOwnFileSize);
}

std::string LogLevel(Settings& settings) {
  const int level = settings.GetLogLevel();
  const bool is_level = level >= kLogOutputLevelVerboseValue && level <= kLogOutputLevelFatalValue;
  return std::to_string(is_level ? level : kLogOutputLevelDebugValue);
}

std::string BufferSize(Settings& settings) {
  const int size = settings.GetLoggerLogMaxBufferdSize();
  return std::to_string(size > 0 ? size : kOwnBufferSize);
}

/// The folder, out of that of the log in it.
std::string CardPath(Settings& settings) {
  const std::string folder = settings.GetLogDirectory();
  return folder.substr(0, folder.rfind("/velmorahome/Log"));
}

}  // namespace

const std::vector<SettingKey>& SettingKeys() {
  static const std::vector<SettingKey> keys = {
      {kSettingTagComSocketPath, SettingKind::kSocket, 0, 0, "",
       [](Settings& settings) { return settings.GetComSocketPath(); }, "no requests are served"},
      {kSettingTagTamselComWatchdogPath, SettingKind::kFile, 0, 0, "",
       [](Settings& settings) { return settings.GetTamselComWatchdogPath(); }, "none"},
      {kSettingTagWatchdogFileUpdateInterval, SettingKind::kNumber, 1, kLongestWatchdogSeconds, "s",
       WatchdogInterval, ""},
      {kSettingTagSDCardPath, SettingKind::kFolder, 0, 0, "", CardPath, "/"},
      {kSettingTagMaxLogFileSize, SettingKind::kSize, 0, 0, "bytes", FileSize, ""},
      {kSettingTagMaxLogRollIndex, SettingKind::kNumber, 1, kMostRolled, "copies",
       [](Settings& settings) {
         return std::to_string(std::clamp(settings.GetMaxLogRollIndex(), 1, kMostRolled));
       },
       ""},
      {kSettingTagLogLevel, SettingKind::kNumber, kLogOutputLevelVerboseValue,
       kLogOutputLevelFatalValue, "", LogLevel, ""},
      {kSettingTagEnableLogBufferedIO, SettingKind::kFlag, 0, 1, "",
       [](Settings& settings) { return std::to_string(settings.IsEnableLogBufferedIO() ? 1 : 0); },
       ""},
      {kSettingTagLoggerLogMaxBufferedSize, SettingKind::kNumber, 1, kIntMax, "bytes", BufferSize,
       ""},
      {kSettingTagRs485StartWait, SettingKind::kNumber, 0, kIntMax, "ms",
       [](Settings& settings) { return std::to_string(settings.GetRs485StartWait()); }, ""},
      {kSettingTagApiRetryCount, SettingKind::kNumber, 0, kIntMax, "",
       [](Settings& settings) {
         return std::to_string(std::max(settings.GetMWApiRetryCount(), 0));
       },
       ""},
      {kSettingTagApiRetryInterval, SettingKind::kNumber, 0, kIntMax, "ms",
       [](Settings& settings) {
         return std::to_string(std::max(settings.GetMWApiRetryInterval(), 0));
       },
       ""},
      {kSettingTagTamselComStartComFailedCloseCount, SettingKind::kNumber,
       kTamselComStartComFailedCloseCountMin, kTamselComStartComFailedCloseCountMax, "",
       [](Settings& settings) {
         return std::to_string(settings.GetTamselComStartComFailedCloseCount());
       },
       ""},
      {kSettingTagTcpDrainTimeout, SettingKind::kNumber, 0, kIntMax, "ms",
       [](Settings& settings) {
         const auto timeout = settings.GetTcpDrainTimeout();
         return timeout ? std::to_string(*timeout) : std::string();
       },
       "the device's time-out"},
      {kSettingTagTcpReuseCheck, SettingKind::kFlag, 0, 1, "",
       [](Settings& settings) { return std::to_string(settings.IsTcpReuseCheck() ? 1 : 0); }, ""},
      {kSettingTagHealthFilePath, SettingKind::kFile, 0, 0, "",
       [](Settings& settings) { return settings.GetHealthFilePath(); }, "none is kept"},
  };
  return keys;
}

}  // namespace tmsc::ctl
