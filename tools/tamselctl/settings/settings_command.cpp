#include "settings/settings_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "communication_common.h"
#include "logger_setting/logger_setting_manager.h"
#include "settings/settings_check.h"
#include "settings/settings_print.h"
#include "shared/daemon_options.h"
#include "shared/exit_code.h"
#include "shared/number_option.h"
#include "shared/times.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

struct SettingsOptions {
  std::string path;
  std::string user;
  bool has_paths = true;
  bool is_json = false;
  Poll poll;
};

int RunSettings(const SettingsOptions& options, bool has_poll) {
  std::optional<DaemonUser> user;
  if (options.has_paths) {
    user = options.user.empty() ? DaemonUser() : DaemonUser::Named(options.user);
    if (!user) {
      ThrowUsage("--user", "there is no user " + options.user);
    }
  }
  const std::string path = options.path.empty() ? DefaultSettingsPath() : options.path;
  // The daemon may read what this user may not.
  if (::access(path.c_str(), R_OK) != 0 && errno == EACCES) {
    ThrowFailure("the settings " + path + " cannot be read: Permission denied" + RightsHelp(path));
  }
  ::setenv(kLoggerSettingFileVariable.c_str(), path.c_str(), 1);
  LoggerSettingManager settings;
  const SettingsReport report = CheckSettings(path, settings, user ? &*user : nullptr);
  const auto poll = has_poll ? std::optional(options.poll) : std::nullopt;
  (options.is_json ? PrintSettingsJson : PrintSettings)(std::cout, report, poll);
  return report.mistakes.empty() ? kExitOk : kExitFailed;
}

void AddPollOptions(CLI::App& command, Poll& poll) {
  CLI::Option_group* group = command.add_option_group(
      "poll", "How long the log reaches back and what it writes, for such requests");
  AddNumber(*group, "--devices", poll.devices, 1, kMaxDeviceCountAtChannel,
            "Devices that each request asks (default: 31)");
  group
      ->add_option_function<std::string>(
          "--every",
          [&poll](const std::string& text) {
            const auto every_ms = ParseDuration(text);
            if (!every_ms || *every_ms < 1) {
              ThrowUsage("--every", text + " is no length of time such as 5s");
            }
            poll.every_ms = *every_ms;
          },
          "Time from one request to the next (default: 5s)")
      ->type_name("TIME");
  group
      ->add_option_function<std::string>(
          "--transport", [&poll](const std::string& text) { poll.is_rs485 = text == "rs485"; },
          "tcpip or rs485 (default: tcpip)")
      ->check(CLI::IsMember({"tcpip", "rs485"}));
  AddNumber(*group, "--registers", poll.registers, 1, 125,
            "Registers that are read of each device (default: 10)");
}

}  // namespace

void AddSettingsCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<SettingsOptions>();
  CLI::App& command = *app.add_subcommand(
      "settings", "Check the daemon's settings file and print what is in effect");
  command.add_option("file", options->path, "Settings file (" + DefaultSettingsHelp() + ")")
      ->type_name("FILE");
  CLI::Option* user =
      command
          .add_option("--user", options->user,
                      "User that the daemon runs as, who has to be able to write the paths "
                      "(default: the user of this command)")
          ->type_name("NAME");
  command
      .add_flag("!--no-paths", options->has_paths,
                "Leave out whether paths exist: the file is for another machine")
      ->excludes(user);
  command.add_flag("--json", options->is_json, "One JSON object");
  AddPollOptions(command, options->poll);
  command.footer(std::string("Examples:\n"
                             "  tamselctl settings --user tamsel\n"
                             "  tamselctl settings --no-paths LoggerSetting.xml\n"
                             "  tamselctl settings --devices 31 --every 5s --transport rs485\n\n") +
                 kExitCodeHelp);
  command.callback([options, &command, &exit_code] {
    const auto groups = command.get_option_group("poll");
    exit_code = RunSettings(*options, groups->count_all() > 0);
  });
}

}  // namespace tmsc::ctl
