#include "shared/daemon_options.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "logger_setting/logger_setting_manager.h"
#include "shared/usage.h"
#include "utility/descriptor.h"

namespace tmsc::ctl {
namespace {

// The daemon goes on with its defaults where there is no file. Somebody who names one wants that.
void RequireReadable(const std::string& path) {
  // A FIFO without a writer would not be opened before there is one.
  const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  if (!file.IsOpen()) {
    ThrowUsage("--settings", path + " cannot be read: " + std::generic_category().message(errno));
  }
  struct stat state {};
  if (::fstat(file.Get(), &state) != 0 || !S_ISREG(state.st_mode)) {
    ThrowUsage("--settings", path + " is no regular file");
  }
}

// Makes the settings that are loaded from now on those of the file that was given.
void UseSettings(const DaemonOptions& options) {
  if (!options.settings_path.empty()) {
    RequireReadable(options.settings_path);
    ::setenv(kLoggerSettingFileVariable.c_str(), options.settings_path.c_str(), 1);
  }
}

}  // namespace

void AddDaemonOptions(CLI::App& command, DaemonOptions& options) {
  command
      .add_option("--socket", options.socket_path,
                  "Socket of the daemon (default: ComSocketPath of the settings)")
      ->type_name("PATH");
  AddSettingsOption(command, options);
}

void AddSettingsOption(CLI::App& command, DaemonOptions& options) {
  command
      .add_option("--settings", options.settings_path,
                  "Settings file of the daemon (default: " + kLoggerSettingFileVariable +
                      " of the environment, else " + kLoggerSettingXmlFilePath + ")")
      ->type_name("FILE");
}

std::string SocketPath(const DaemonOptions& options) {
  if (!options.socket_path.empty()) {
    return options.socket_path;
  }
  UseSettings(options);
  return LoggerSettingManager().GetComSocketPath();
}

std::string HealthFilePath(const DaemonOptions& options) {
  UseSettings(options);
  return LoggerSettingManager().GetHealthFilePath();
}

}  // namespace tmsc::ctl
