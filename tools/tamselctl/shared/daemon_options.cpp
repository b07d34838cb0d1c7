#include "shared/daemon_options.h"

#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <utility>

#include "logger_setting/logger_setting_manager.h"
#include "shared/regular_file.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

// Where the service of an installed package has its settings.
constexpr const char* kPackagedSettingsPath = "/etc/tamsel/LoggerSetting.xml";

bool IsThere(const std::string& path) {
  return ::access(path.c_str(), F_OK) == 0 || errno != ENOENT;
}

bool IsNamedByEnvironment() {
  const char* const named = ::getenv(kLoggerSettingFileVariable.c_str());
  return named != nullptr && *named != '\0';
}

}  // namespace

std::string DefaultSettingsHelp() {
  return "default: " + kLoggerSettingFileVariable + " of the environment, else " +
         kPackagedSettingsPath + ", else " + kLoggerSettingXmlFilePath;
}

std::string DefaultSettingsPath() {
  return !IsNamedByEnvironment() && IsThere(kPackagedSettingsPath)
             ? kPackagedSettingsPath
             : LoggerSettingManager::SettingFilePath();
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
  const std::string path = settings_path.empty() ? DefaultSettingsPath() : settings_path;
  if (const RegularFile file = OpenRegularFile(path); !file.obstacle.empty()) {
    if (!settings_path.empty()) {
      ThrowUsage("--settings", path + " " + file.obstacle + RightsHelp(path));
    }
    if (IsThere(path)) {
      ThrowFailure("the settings " + path + " " + file.obstacle + RightsHelp(path));
    }
    // The daemon goes on with its defaults, too.
    if (static bool is_told = false; IsNamedByEnvironment() && !std::exchange(is_told, true)) {
      std::cerr << "tamselctl: the settings " << path << " " << file.obstacle
                << "; the defaults hold\n";
    }
    return;
  }
  ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
}

std::string RightsHelp(const std::string& path) {
  if (::access(path.c_str(), R_OK) == 0 || errno != EACCES) {
    return {};
  }
  // Where even its rights cannot be looked at, a folder above keeps from it.
  std::filesystem::path place = path;
  struct stat status {};
  while (::stat(place.c_str(), &status) != 0 && place.has_relative_path()) {
    place = place.parent_path();
  }
  const group* const owner = ::getgrgid(status.st_gid);
  if (status.st_gid == 0 || (status.st_mode & S_IRWXG) == 0 || owner == nullptr) {
    return {};
  }
  const std::string name = owner->gr_name;
  return "; join the group " + name + " (sudo adduser \"$USER\" " + name + "), then log in anew";
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
