#ifndef TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_
#define TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_

#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "support/files.h"
#include "support/wait.h"
#include "utility/file_util.h"

namespace tmsc::test {

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// Settings and log of a test's own, in a folder of its own.
class LogFixture : public ::testing::Test {
 protected:
  LogFixture() {
    FileUtil::Create();
    UseSettings();
  }
  ~LogFixture() override {
    LoggerLog::Shutdown();
    LoggerSettingManager::Destroy();
    ::unsetenv(kLoggerSettingFileVariable.c_str());
    FileUtil::Destroy();
  }

  /// Makes the settings manager read `text` as its file.
  LoggerSettingManager& UseSettingFile(const std::string& text) {
    const std::string path = folder_.Path("LoggerSetting.xml");
    WriteFile(path, text);
    ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
    LoggerSettingManager::Destroy();
    LoggerSettingManager::Create();
    return *LoggerSettingManager::GetInstance();
  }
  /// Settings whose paths lie in the test's folder, and the changes.
  LoggerSettingManager& UseSettings(const Settings& changes = {}) {
    return UseSettingFile(SettingsXml(SettingsIn(folder_, changes)));
  }
  void StartLog(const Settings& changes = {}) {
    UseSettings(changes);
    LoggerLog::Setup();
  }
  std::string LogText() const { return ReadFile(log_path_); }
  /// Ends the log; everything that was logged.
  std::string StopLog() {
    LoggerLog::Shutdown();
    return LogText();
  }

  TempFolder folder_;
  const std::string log_path_ = LogPathIn(folder_);
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_
