#include "log/log_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <iostream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "communication_common.h"
#include "log/exchange_tracker.h"
#include "log/log_files.h"
#include "log/log_summary.h"
#include "logger_setting/logger_setting_manager.h"
#include "shared/daemon_options.h"
#include "shared/exit_code.h"
#include "shared/interruption.h"
#include "shared/json_line.h"
#include "shared/printable.h"
#include "shared/ranges_option.h"
#include "shared/table.h"
#include "shared/times.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

constexpr std::chrono::milliseconds kFollowInterval{250};

struct LogOptions {
  std::vector<std::string> places;
  std::string settings_path;
  std::int64_t since_ms = std::numeric_limits<std::int64_t>::min();
  std::int64_t until_ms = std::numeric_limits<std::int64_t>::max();
  std::size_t least_level = 0;  // index in kLogLevels
  std::vector<std::string> tags;
  std::vector<int> channels;
  std::vector<int> devices;
  bool is_following = false;
  bool is_summary = false;
  bool is_json = false;
};

std::uint32_t BitsOf(const std::vector<int>& numbers) {
  std::uint32_t bits = 0;
  for (const int number : numbers) {
    bits |= std::uint32_t{1} << number;
  }
  return bits;
}

std::vector<int> NumbersOf(std::uint32_t bits) {
  std::vector<int> numbers;
  for (int number = 1; number < 32; ++number) {
    if ((bits >> number & 1) != 0) {
      numbers.push_back(number);
    }
  }
  return numbers;
}

Tone ToneOf(char level) {
  switch (level) {
    case 'V':
    case 'D':
      return Tone::kDim;
    case 'W':
      return Tone::kWarning;
    case 'E':
    case 'F':
      return Tone::kBad;
    default:
      return Tone::kPlain;
  }
}

/// Takes the lines of a log and prints or counts those that are asked for.
class LogPrinter {
 public:
  explicit LogPrinter(const LogOptions& options)
      : options_(options),
        channels_(BitsOf(options.channels)),
        devices_(BitsOf(options.devices)),
        has_colour_(HasColour(std::cout)) {}

  void Take(std::string_view text, bool is_whole) {
    const ParsedLine parsed = is_whole ? ParseLogLine(text) : ParsedLine{std::nullopt, true, false};
    if (parsed.is_damaged) {
      ++damaged_;
      summary_.TakeDamaged();
    }
    if (!parsed.line) {
      return;
    }
    has_lines_ = true;
    const LogLine& line = *parsed.line;
    const bool is_in_time = line.time_ms >= options_.since_ms && line.time_ms <= options_.until_ms;
    if (options_.is_summary) {
      if (is_in_time) {
        summary_.Take(line);
      }
      return;
    }
    // The tracker needs every line, to know what a later one belongs to.
    const Owners owners = tracker_.Take(line, ReadMessage(line));
    tracker_.TakeEnded();
    if (is_in_time && IsWanted(line, owners)) {
      Print(line, owners);
      has_printed_ = true;
    }
  }

  /// Says so when there is nothing to see.
  void TellIfEmpty() const {
    const bool is_empty = options_.is_summary ? summary_.Lines() == 0 : !has_printed_;
    if (is_empty) {
      std::cerr << (has_lines_      ? "tamselctl: no line is in the time or of the kind asked for\n"
                    : damaged_ == 0 ? "tamselctl: the log is empty\n"
                                    : "tamselctl: none of that is a line of the log\n");
    }
  }

  void End() {
    if (options_.is_summary) {
      summary_.End();
      const SummaryScope scope{options_.channels, options_.devices};
      if (options_.is_json) {
        summary_.PrintJson(std::cout, scope);
      } else if (summary_.Lines() > 0) {
        summary_.PrintText(std::cout, scope);
      }
    } else if (damaged_ > 0) {
      std::cout.flush();
      std::cerr << "tamselctl: " << damaged_ << " cut or damaged lines left out\n";
    }
  }

 private:
  bool IsWanted(const LogLine& line, const Owners& owners) const {
    return kLogLevels.find(line.level) >= options_.least_level &&
           (options_.tags.empty() || std::find(options_.tags.begin(), options_.tags.end(),
                                               line.tag) != options_.tags.end()) &&
           (channels_ == 0 || (channels_ & owners.channels) != 0) &&
           (devices_ == 0 || (devices_ & owners.devices) != 0);
  }

  void Print(const LogLine& line, const Owners& owners) const {
    if (!options_.is_json) {
      std::cout << Coloured(Printable(line.text), ToneOf(line.level), has_colour_) << '\n';
      return;
    }
    nlohmann::ordered_json json = {{"time", IsoTime(line.time_ms)},
                                   {"level", std::string(1, line.level)},
                                   {"tag", line.tag},
                                   {"message", line.message}};
    if (owners.channels != 0) {
      json["channels"] = NumbersOf(owners.channels);
    }
    if (owners.devices != 0) {
      json["devices"] = NumbersOf(owners.devices);
    }
    PrintJsonLine(std::cout, json);
  }

  const LogOptions& options_;
  std::uint32_t channels_;
  std::uint32_t devices_;
  bool has_colour_;
  bool has_lines_ = false;
  bool has_printed_ = false;
  std::uint64_t damaged_ = 0;
  ExchangeTracker tracker_;
  LogSummary summary_;
};

/// Prints what is appended until the process is interrupted or nobody reads the output any more.
/// Ends when a signal comes or standard output fails; the exit status.
int Follow(LogFile file, LogPrinter& printer) {
  const LineTaker take = [&printer](std::string_view text, bool is_whole) {
    printer.Take(text, is_whole);
  };
  const std::string path = file.path;
  LogFollower follower(std::move(file));
  const Interruption interruption;
  do {
    if (!follower.Poll(take)) {
      std::cout.flush();
      std::cerr << "tamselctl: " << path << " was begun anew; lines may be missing here\n";
    }
  } while (std::cout.flush() && interruption.Sleep(kFollowInterval));
  return std::cout ? interruption.ExitCode() : kExitFailed;
}

/// The log's folder in the settings; says so when who follows the log there waits for its lines.
std::string DefaultPlace(const LogOptions& options) {
  UseSettings(options.settings_path);
  LoggerSettingManager settings;
  if (options.is_following && settings.IsEnableLogBufferedIO()) {
    std::cerr << "tamselctl: the daemon writes its lines when "
              << settings.GetLoggerLogMaxBufferdSize()
              << " bytes of them are there, at the latest after 5 minutes; to have them as they "
                 "happen set EnableLogBufferedIO to 0 and restart it\n";
  }
  return settings.GetLogDirectory();
}

int RunLog(LogOptions options) {
  if (options.places.empty()) {
    options.places.push_back(DefaultPlace(options));
  }
  LogFiles log = OpenLog(options.places);
  while (options.is_following && log.files.empty()) {
    const std::vector<std::string> told = log.mistakes;
    for (const std::string& mistake : told) {
      std::cerr << "tamselctl: " << mistake << "; waiting for it\n";
    }
    while (log.files.empty() && log.mistakes == told) {
      std::this_thread::sleep_for(kFollowInterval);
      log = OpenLog(options.places);
    }
  }
  for (const std::string& mistake : log.mistakes) {
    std::cerr << "tamselctl: " << mistake << '\n';
  }
  int exit_code = log.mistakes.empty() ? kExitOk : kExitFailed;
  LogPrinter printer(options);
  const LineTaker take = [&](std::string_view text, bool is_whole) {
    printer.Take(text, is_whole);
  };
  for (LogFile& file : log.files) {
    const bool is_last = &file == &log.files.back();
    const bool is_stream = file.path == "-";
    if (is_last && options.is_following && !is_stream) {
      return Follow(std::move(file), printer);
    }
    LineSplitter splitter;
    // A stream is shown as it comes.
    const LineTaker take_and_show = [&](std::string_view text, bool is_whole) {
      take(text, is_whole);
      if (is_stream && options.is_following) {
        std::cout.flush();
      }
    };
    if (!ReadToEnd(file, splitter, take_and_show)) {
      std::cout.flush();
      std::cerr << "tamselctl: " << file.path << ": " << std::generic_category().message(errno)
                << '\n';
      exit_code = kExitFailed;
    }
    splitter.End(take);
    if (!std::cout.flush()) {
      return kExitFailed;
    }
  }
  printer.End();
  if (!log.files.empty()) {
    printer.TellIfEmpty();
  }
  return exit_code;
}

void AddMoment(CLI::App& command, const char* name, std::int64_t& moment, const char* description) {
  command
      .add_option_function<std::string>(
          name,
          [name, &moment](const std::string& text) {
            const auto parsed = ParseMoment(text, NowMs());
            if (!parsed) {
              ThrowUsage(name, text + " is neither a moment nor a length of time");
            }
            moment = *parsed;
          },
          description)
      ->type_name("MOMENT");
}

CLI::Option* AddLevel(CLI::App& command, std::size_t& least_level) {
  static const std::vector<std::string> kNames = {"verbose", "debug", "info",
                                                  "warn",    "error", "fatal"};
  return command
      .add_option_function<std::string>(
          "--level",
          [&least_level](const std::string& text) {
            for (std::size_t level = 0; level < kNames.size(); ++level) {
              if (text == kNames[level] || text == kLogLevels.substr(level, 1) ||
                  text == std::to_string(level)) {
                least_level = level;
                return;
              }
            }
            ThrowUsage("--level", text + " is no level: V, D, I, W, E or F");
          },
          "Lines of this level and above: V, D, I, W, E or F, or verbose to fatal, or 0 to 5")
      ->type_name("LEVEL");
}

}  // namespace

void AddLogCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<LogOptions>();
  CLI::App& command = *app.add_subcommand(
      "log", "Print the daemon's log with its rotated copies, filter, follow or sum it up");
  command
      .add_option("places", options->places,
                  "The log's folder, a card or a copy of one, files in any order, or - for the "
                  "daemon's standard output (default: the folder in the settings)")
      ->type_name("FOLDER|FILE");
  AddSettingsOption(command, options->settings_path);
  AddMoment(command, "--since", options->since_ms,
            "Lines from then on: \"2026-07-25 14:03[:22]\" local time, with Z behind for UTC, or "
            "a length of time before now such as 2h");
  AddMoment(command, "--until", options->until_ms, "Lines until then");
  CLI::Option* level = AddLevel(command, options->least_level);
  CLI::Option* tag =
      command
          .add_option("--tag", options->tags, "Lines with this tag, such as TCPIPAUnit; repeatable")
          ->type_name("TAG")
          ->allow_extra_args(false);
  AddRanges(command, "--channel", options->channels, 1, kMaxChannel,
            "numbers or ranges of 1 to " + std::to_string(kMaxChannel),
            "Lines that belong, or may belong, to these channels, such as 1,3");
  AddRanges(command, "--device", options->devices, 1, kMaxDeviceCountAtChannel,
            "numbers or ranges of 1 to " + std::to_string(kMaxDeviceCountAtChannel),
            "Lines that belong, or may belong, to the devices with these addresses, such as 1-5");
  CLI::Option* follow = command.add_flag("-f,--follow", options->is_following,
                                         "Go on with what is appended, until Ctrl-C");
  command
      .add_flag("--summary", options->is_summary,
                "Requests, failures by kind, busy refusals, outages and restarts, by channel and "
                "device")
      ->excludes(follow)
      ->excludes(level)
      ->excludes(tag);
  command.add_flag("--json", options->is_json,
                   "One JSON object for each line, or one for the summary");
  command.footer(
      std::string("Times in the log are UTC. What the daemon has not written to the card yet, up "
                  "to 5 minutes,\nis not in its files; its standard output has it. With "
                  "EnableLogBufferedIO 0 it writes twice a second.\n\n"
                  "Examples:\n"
                  "  tamselctl log --since 1h --level W\n"
                  "  tamselctl log --channel 2 --device 17 --follow\n"
                  "  tamselctl log --summary /media/copy-of-card\n"
                  "  tamsel_communication | tamselctl log --level W -\n\n") +
      kExitCodeHelp);
  command.callback([options, &exit_code] { exit_code = RunLog(*options); });
}

}  // namespace tmsc::ctl
