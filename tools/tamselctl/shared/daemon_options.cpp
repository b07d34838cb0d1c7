#include "shared/daemon_options.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdlib>
#include <system_error>

#include "logger_setting/logger_setting_manager.h"
#include "shared/usage.h"
#include "utility/descriptor.h"

namespace tmsc::ctl {
namespace {

// Where the settings of a packaged daemon are, which its service names to it.
constexpr const char* kPackagedSettingsPath = "/etc/tamsel/LoggerSetting.xml";

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

// Makes the settings that are loaded from now on those of the file that was given, else of a daemon
// that this environment would start, else of the packaged one.
void UseSettings(const DaemonOptions& options) {
  const char* const variable = kLoggerSettingFileVariable.c_str();
  std::string path = options.settings_path;
  if (path.empty()) {
    const char* const named = ::getenv(variable);
    if ((named != nullptr && *named != '\0') ||
        ::access(kLoggerSettingXmlFilePath.c_str(), F_OK) == 0 ||
        ::access(kPackagedSettingsPath, F_OK) != 0) {
      return;
    }
    path = kPackagedSettingsPath;
  }
  RequireReadable(path);
  ::setenv(variable, path.c_str(), 1);
}

}  // namespace

void AddDaemonOptions(CLI::App& command, DaemonOptions& options) {
  command
      .add_option("--socket", options.socket_path,
                  "Socket of the daemon (default: ComSocketPath of the settings)")
      ->type_name("PATH");
  command
      .add_option("--settings", options.settings_path,
                  "Settings file of the daemon (default: " + kLoggerSettingFileVariable +
                      " of the environment, else " + kLoggerSettingXmlFilePath + ", else " +
                      kPackagedSettingsPath + ")")
      ->type_name("FILE");
}

std::string SocketPath(const DaemonOptions& options) {
  if (!options.socket_path.empty()) {
    return options.socket_path;
  }
  UseSettings(options);
  return LoggerSettingManager().GetComSocketPath();
}

}  // namespace tmsc::ctl
