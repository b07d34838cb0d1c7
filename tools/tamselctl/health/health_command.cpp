#include "health/health_command.h"

#include <unistd.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <limits>
#include <memory>
#include <sstream>

#include "communication_common.h"
#include "health/health_json.h"
#include "health/health_metrics.h"
#include "health/health_page.h"
#include "health/health_text.h"
#include "health/health_view.h"
#include "logger_setting/logger_setting_manager.h"
#include "shared/atomic_file.h"
#include "shared/daemon_options.h"
#include "shared/exit_code.h"
#include "shared/number_option.h"
#include "shared/printable.h"
#include "shared/ranges_option.h"
#include "shared/screen.h"
#include "shared/site.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kStandardOutput = "-";
constexpr const char* kExamples =
    "Examples:\n"
    "  tamselctl health                         who answers, who does not, and why\n"
    "  tamselctl health --failing --watch       what fails, renewed every 2 s\n"
    "  tamselctl health --channel 2 --device 1-4,17\n"
    "  tamselctl health --html /tmp/health.html a page for a browser; - prints it\n"
    "  tamselctl health --openmetrics --output /var/lib/prometheus/node-exporter/tamsel.prom\n"
    "  tamselctl health copied.health --json    from a copy, for a program\n\n";

struct HealthOptions {
  std::string file;
  DaemonOptions daemon;
  HealthSelection selection;
  DeviceNamer namer;
  std::string site_name;
  std::optional<std::int64_t> watch_ms;
  int count = 0;  // of a watch; 0: without an end
  bool is_json = false;
  bool is_openmetrics = false;
  std::string page_path;
  std::string output_path;

  bool IsText() const { return !is_json && !is_openmetrics && page_path.empty(); }
  /// Where to write; empty: to standard output.
  std::string Target() const {
    const std::string& path = page_path.empty() ? output_path : page_path;
    return path == kStandardOutput ? "" : path;
  }
};

void Print(std::ostream& output, const HealthView& view, const HealthOptions& options) {
  if (options.is_json) {
    PrintHealthJson(output, view);
  } else if (options.is_openmetrics) {
    PrintHealthMetrics(output, view);
  } else if (!options.page_path.empty()) {
    PrintHealthPage(output, view);
  } else {
    PrintHealthText(output, view);
  }
}

/// Of which site and which machine the health is; a copy of a file may be another machine's.
std::string PlaceText(const HealthOptions& options) {
  char host[256] = "";
  ::gethostname(host, sizeof(host) - 1);
  return options.site_name + (options.site_name.empty() ? "" : ", ") +
         Printable(options.file.empty() ? host : options.file);
}

/// Reads the file at `path` once and shows it; the exit status.
int ShowOnce(const std::string& path, const HealthOptions& options, std::ostream& output,
             std::ostream& errors) {
  const HealthReading reading = ReadHealth(path);
  if (!reading.snapshot) {
    errors << "tamselctl: " << reading.error << RightsHelp(path) << '\n';
    return kExitNoDaemon;
  }
  HealthView view =
      MakeHealthView(path, *reading.snapshot, options.selection, options.namer, NowMs());
  view.place = PlaceText(options);
  const std::string target = options.Target();
  if (target.empty()) {
    Print(output, view, options);
  } else {
    std::ostringstream text;
    Print(text, view, options);
    if (const std::string error = WriteAtomically(target, text.str()); !error.empty()) {
      errors << "tamselctl: " << error << '\n';
      return kExitOutputFailed;
    }
  }
  return view.IsAnyFailing() ? kExitDeviceFailed : kExitOk;
}

int RunHealth(const HealthOptions& options) {
  const std::string path = options.file.empty() ? HealthFilePath(options.daemon) : options.file;
  if (path.empty()) {
    std::cerr << "tamselctl: the settings " << LoggerSettingManager::SettingFilePath()
              << " name no HealthFilePath, so the daemon keeps no health; set it, or name a FILE\n";
    return kExitNoDaemon;
  }
  if (!options.watch_ms) {
    return ShowOnce(path, options, std::cout, std::cerr);
  }
  int exit_code = kExitOk;
  ShowRepeatedly(*options.watch_ms, options.count, options.IsText() && options.Target().empty(),
                 [&](std::ostream& output) {
                   exit_code =
                       ShowOnce(path, options, output, options.IsText() ? output : std::cerr);
                 });
  return exit_code;
}

void AddSelection(CLI::App& command, HealthOptions& options) {
  HealthSelection& selection = options.selection;
  AddNumber(command, "--channel", selection.channel, 1, kMaxChannel, "Only this channel, 1 to 3");
  AddRanges(
      command, "--device", selection.addresses, 1, kMaxDeviceCountAtChannel,
      "a list of addresses of 1 to " + std::to_string(kMaxDeviceCountAtChannel) + ", such as 1-5,8",
      "Only these addresses, such as 1-5,8");
  command.add_flag("--failing", selection.is_failing_only,
                   "Only devices whose last exchange failed");
}

void AddForms(CLI::App& command, HealthOptions& options) {
  CLI::Option* json = command.add_flag("--json", options.is_json, "All of it, for programs");
  CLI::Option* metrics =
      command
          .add_flag("--openmetrics", options.is_openmetrics, "Counters and times, for Prometheus")
          ->excludes(json);
  CLI::Option* page = command
                          .add_option("--html", options.page_path,
                                      "Write a page for a browser, complete in itself; - prints it")
                          ->type_name("FILE")
                          ->excludes(json)
                          ->excludes(metrics);
  command
      .add_option("--output", options.output_path,
                  "Write to this file, which is whole at any time, instead of printing")
      ->type_name("FILE")
      ->excludes(page);
  CLI::Option* watch =
      command
          .add_option_function<std::string>(
              "--watch",
              [&options](const std::string& text) {
                constexpr std::int64_t kShortestMs = 100;
                options.watch_ms = ParseDuration(text);
                if (!options.watch_ms || *options.watch_ms < kShortestMs) {
                  ThrowUsage("--watch", text + " is no time of 100 ms or more, such as 5 or 500ms");
                }
              },
              "Show it again and again, every 2 s unless told otherwise, until Ctrl-C; the exit "
              "status is then that of the last time")
          ->type_name("SECONDS")
          ->expected(0, 1)
          ->default_str("2");
  AddNumber(command, "--count", options.count, 1, std::numeric_limits<int>::max(),
            "End the watch after so many times")
      ->needs(watch);
}

}  // namespace

void AddHealthCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<HealthOptions>();
  CLI::App& command =
      *app.add_subcommand("health", "Show which devices answer, which do not, since when and why");
  command.footer(std::string(kExamples) + kExitCodeHelp);
  command
      .add_option("FILE", options->file, "Health file (default: HealthFilePath of the settings)")
      ->type_name("");
  AddSelection(command, *options);
  AddForms(command, *options);
  AddSettingsOption(command, options->daemon.settings_path);
  command
      .add_option_function<std::string>(
          "--site",
          [options](const std::string& path) {
            const Site site = RequireSite("--site", path);
            options->site_name = site.name;
            options->namer = [site](int channel, int transport, int address) {
              return site.DeviceName(channel, transport, address);
            };
          },
          "A file that names the devices")
      ->type_name("FILE");
  command.callback([options, &exit_code] { exit_code = RunHealth(*options); });
}

}  // namespace tmsc::ctl
