#include "shared/daemon_options.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "logger_setting/logger_setting_manager.h"
#include "shared/regular_file.h"
#include "shared/usage.h"
#include "utility/descriptor.h"

namespace tmsc::ctl {
namespace {

// Where the service of an installed package has its settings.
constexpr const char* kPackagedSettingsPath = "/etc/tamsel/LoggerSetting.xml";

// The daemon goes on with its defaults where there is no file. Somebody who names one wants that.
void RequireReadable(const std::string& path) {
  if (const RegularFile file = OpenRegularFile(path); !file.obstacle.empty()) {
    ThrowUsage("--settings", path + " " + file.obstacle);
  }
}

// Empty where a daemon that is started with this environment would find a file of its own.
std::string PackagedSettings() {
  const char* const named = ::getenv(kLoggerSettingFileVariable.c_str());
  const bool has_own = (named != nullptr && *named != '\0') ||
                       ::access(kLoggerSettingXmlFilePath.c_str(), F_OK) == 0;
  return has_own || ::access(kPackagedSettingsPath, F_OK) != 0 ? "" : kPackagedSettingsPath;
}

}  // namespace

std::string DefaultSettingsHelp() {
  return "default: " + kLoggerSettingFileVariable + " of the environment, else " +
         kLoggerSettingXmlFilePath + ", else " + kPackagedSettingsPath;
}

void AddDaemonOptions(CLI::App& command, DaemonOptions& options) {
  command
      .add_option("--socket", options.socket_path,
                  "Socket of the daemon (default: ComSocketPath of the settings)")
      ->type_name("PATH");
  AddSettingsOption(command, options.settings_path);
}

void AddSettingsOption(CLI::App& command, std::string& settings_path) {
  command
      .add_option("--settings", settings_path,
                  "Settings file of the daemon (" + DefaultSettingsHelp() + ")")
      ->type_name("FILE");
}

void UseSettings(const std::string& settings_path) {
  const std::string path = settings_path.empty() ? PackagedSettings() : settings_path;
  if (!path.empty()) {
    RequireReadable(path);
    ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
  }
}

std::string SocketPath(const DaemonOptions& options) {
  if (!options.socket_path.empty()) {
    return options.socket_path;
  }
  UseSettings(options.settings_path);
  return LoggerSettingManager().GetComSocketPath();
}

std::string HealthFilePath(const DaemonOptions& options) {
  UseSettings(options.settings_path);
  return LoggerSettingManager().GetHealthFilePath();
}

}  // namespace tmsc::ctl
