// A settings file, through the daemon's loader and the field tool's check.

#include "fuzz/input_file.h"
#include "logger_setting/logger_setting_manager.h"
#include "settings/settings_file.h"

using namespace tmsc;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const test::InputFile input(data, size);
  ::setenv(kLoggerSettingFileVariable.c_str(), input.Path().c_str(), 1);
  LoggerSettingManager::Create();
  LoggerSettingManager& daemon = *LoggerSettingManager::GetInstance();
  const ctl::SettingsFile file = ctl::ReadSettingsFile(input.Path());
  std::string path;
  for (const ctl::SettingEntry& entry : file.entries) {
    test::Require(entry.line > 0 && entry.column > 0);
    path = entry.key == "HealthFilePath" ? entry.value : path;
  }
  test::Require(daemon.GetHealthFilePath() == path);
  LoggerSettingManager::Destroy();
  return 0;
}
