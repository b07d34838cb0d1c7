#ifndef TAMSEL_LOGGER_SETTING_LOGGER_SETTING_MANAGER_H_
#define TAMSEL_LOGGER_SETTING_LOGGER_SETTING_MANAGER_H_

#include <cstddef>
#include <optional>
#include <string>
#include <unordered_map>

#include "utility/constant_string.h"
#include "utility/singleton.h"

namespace tmsc {

/// The settings file that holds unless the environment variable below names another.
inline const std::string& kLoggerSettingXmlFilePath =
    ConstantString("/usr/local/etc/velmorahome/SettingsXML/LoggerSetting.xml");
/// Environment variable that names another settings file, for development, tests and packages.
inline const std::string& kLoggerSettingFileVariable = ConstantString("TAMSEL_SETTING_FILE");

inline const std::string& kSettingTagTamselComWatchdogPath =
    ConstantString("TamselComWatchdogFilePath");
inline const std::string& kSettingTagComSocketPath = ConstantString("ComSocketPath");
inline const std::string& kSettingTagWatchdogFileUpdateInterval =
    ConstantString("WatchdogFileUpdateInterval");
inline const std::string& kSettingTagSDCardPath = ConstantString("SdcardPath");
inline const std::string& kSettingTagMaxLogRollIndex = ConstantString("LoggerComLogMaxRollIndex");
inline const std::string& kSettingTagMaxLogFileSize = ConstantString("LoggerComLogMaxFileSize");
inline const std::string& kSettingTagTamselComStartComFailedCloseCount =
    ConstantString("TamselComStartComFailedCloseCount");
inline const std::string& kSettingTagEnableLogBufferedIO = ConstantString("EnableLogBufferedIO");
inline const std::string& kSettingTagLogLevel = ConstantString("LogLevel");
inline const std::string& kSettingTagLoggerLogMaxBufferedSize =
    ConstantString("LoggerLogMaxBufferedSize");
inline const std::string& kSettingTagApiRetryCount = ConstantString("ApiRetryCount");
inline const std::string& kSettingTagApiRetryInterval = ConstantString("ApiRetryInterval");
inline const std::string& kSettingTagTcpDrainTimeout = ConstantString("TcpDrainTimeout");
inline const std::string& kSettingTagTcpReuseCheck = ConstantString("TcpReuseCheck");
inline const std::string& kSettingTagRs485StartWait = ConstantString("Rs485StartWait");
inline const std::string& kSettingTagHealthFilePath = ConstantString("HealthFilePath");

/// Most elements within each other in a settings file: they are copied and freed recursively, and
/// more of them could exhaust the stack.
constexpr int kSettingDepthMax = 256;
/// Bytes; what is longer is no settings file, and its tree might not fit into memory.
constexpr std::size_t kSettingFileSizeMax = 8 * 1024 * 1024;

constexpr int kLoggerLogLogLevelDefault = 1;
constexpr int kTamselComStartComFailedCloseCountInit = 100;
constexpr int kTamselComStartComFailedCloseCountMin = 1;
constexpr int kTamselComStartComFailedCloseCountMax = 1000;

/// All settings of the daemon: built-in defaults, overlaid once, at construction, with the settings
/// file. docs/settings.md tables the keys.
///
/// The store never changes afterwards, so any thread may call the getters. No getter fails: a value
/// that is missing or is no number gives the fallback named at the getter.
class LoggerSettingManager : public Singleton<LoggerSettingManager> {
 public:
  LoggerSettingManager();
  virtual ~LoggerSettingManager() = default;

  /// The settings file that LoadXml reads.
  static std::string SettingFilePath();

  void SetupDefaultSetting();
  /// Takes over each child element of the file's root element LoggerSetting. A file that is missing
  /// or is no XML, or larger than 8 MiB, changes nothing.
  void LoadXml();

  /// The value of `key` as a decimal number, characters behind it ignored; `default_value` when
  /// there is none.
  int GetIntvalueFromSettingItems(const std::string& key, int default_value);

  /// File whose time stamp shows that the daemon is alive.
  std::string GetTamselComWatchdogPath();
  /// Unix-domain socket of the request server.
  std::string GetComSocketPath();
  /// Seconds between two touches of the watchdog file; fallback 30.
  int GetWatchdogFileUpdateInterval();
  /// Directory of the log on the card.
  std::string GetLogDirectory();
  /// Number of rotated log files; fallback 12.
  int GetMaxLogRollIndex();
  /// Size text of one log file, for StringUtil::StringFileSizeToLogFileSize.
  std::string GetMaxLogFileSize();
  /// RS485 start failures in a row that close the port, 1 to 1000; 100 in place of a value outside,
  /// with an Error line.
  int GetTamselComStartComFailedCloseCount();
  /// Whether log text is gathered before it is written; fallback true.
  bool IsEnableLogBufferedIO();
  /// Lowest log level, 0 (Verbose) to 5 (Fatal); fallback 1.
  int GetLogLevel();
  /// Bytes of gathered log text that trigger a write; fallback 4096.
  int GetLoggerLogMaxBufferdSize();
  /// Extra attempts of a serial-library call; fallback 3.
  int GetMWApiRetryCount();
  /// Milliseconds between two attempts of a serial-library call; fallback 100.
  int GetMWApiRetryInterval();
  /// Milliseconds of silence that end the drain after a TCP/IP answer, 0 for no drain; nothing when
  /// not set or negative: the device's own time-out then counts.
  std::optional<int> GetTcpDrainTimeout();
  /// Whether a pooled TCP/IP connection is tested before it is used again; fallback false.
  bool IsTcpReuseCheck();
  /// Milliseconds before an RS485 request touches its port; fallback 200, also for a negative
  /// value.
  int GetRs485StartWait();
  /// File that the health of the devices is kept in; empty when not set: none is kept.
  std::string GetHealthFilePath();

  /// Logs the values of the getters at Debug.
  void TestLoggerSetting();

 private:
  void TakeSettings(const std::string& text, const std::string& encoding);
  /// The value of `key`; empty when absent. Never adds the key.
  std::string Find(const std::string& key) const;

  std::unordered_map<std::string, std::string> logger_setting_map_;
};

}  // namespace tmsc

#endif  // TAMSEL_LOGGER_SETTING_LOGGER_SETTING_MANAGER_H_
