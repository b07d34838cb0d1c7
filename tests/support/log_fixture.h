#ifndef TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_
#define TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "support/temp_folder.h"
#include "utility/deadline.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc::test {

/// Whether the condition comes true within the limit.
inline bool Eventually(const std::function<bool()>& condition,
                       std::chrono::milliseconds limit = std::chrono::seconds(5)) {
  const Deadline deadline(limit);
  while (!condition()) {
    if (deadline.HasPassed()) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

inline std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line);
  }
  return lines;
}

/// Lines of `text` that contain `part`.
inline int CountLines(const std::string& text, const std::string& part) {
  int count = 0;
  for (const std::string& line : Lines(text)) {
    count += line.find(part) != std::string::npos ? 1 : 0;
  }
  return count;
}

inline int MillisecondsSince(Deadline::Clock::time_point start) {
  return static_cast<int>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Deadline::Clock::now() - start)
          .count());
}

/// Settings and log of a test's own, in a folder of its own.
class LogFixture : public ::testing::Test {
 protected:
  LogFixture() {
    FileUtil::Create();
    UseSettings("");
  }
  ~LogFixture() override {
    LoggerLog::Shutdown();
    LoggerSettingManager::Destroy();
    ::unsetenv(kLoggerSettingFileVariable.c_str());
    FileUtil::Destroy();
  }

  /// Makes the settings manager read `text` as its file.
  void UseSettingFile(const std::string& text) {
    const std::string path = folder_.Path("LoggerSetting.xml");
    WriteFile(path, text);
    ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
    LoggerSettingManager::Destroy();
    LoggerSettingManager::Create();
  }
  /// Settings whose paths lie in the test's folder, and `elements` such as
  /// "<LogLevel>0</LogLevel>".
  void UseSettings(const std::string& elements) {
    UseSettingFile("<LoggerSetting><SdcardPath>" + folder_.Path() + "</SdcardPath><ComSocketPath>" +
                   folder_.Path("socket") + "</ComSocketPath><TamselComWatchdogFilePath>" +
                   folder_.Path("check/tmsc") + "</TamselComWatchdogFilePath>" + elements +
                   "</LoggerSetting>");
  }
  void StartLog(const std::string& elements = "") {
    UseSettings(elements);
    LoggerLog::Setup();
  }
  std::string LogText() const { return StringUtil::LoadFromFile(log_path_); }
  /// Ends the log; everything that was logged.
  std::string StopLog() {
    LoggerLog::Shutdown();
    return LogText();
  }

  TempFolder folder_;
  const std::string log_path_ = folder_.Path("velmorahome/Log/LoggerCom.log");
};

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_SUPPORT_LOG_FIXTURE_H_
