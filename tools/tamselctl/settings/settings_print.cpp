#include "settings/settings_print.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string>

#include "log/log_file_output.h"
#include "shared/json_line.h"
#include "shared/printable.h"
#include "shared/table.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr const char* kLevelNames[] = {"0 verbose", "1 debug", "2 info",
                                       "3 warn",    "4 error", "5 fatal"};
constexpr int kLevels = kLogOutputLevelFatalValue + 1;
constexpr std::int64_t kWeekMs = 7LL * 24 * 60 * 60 * 1000;

const char* SourceText(SettingSource source) {
  switch (source) {
    case SettingSource::kFile:
      return "file";
    case SettingSource::kFallback:
      return "fallback";
    case SettingSource::kDefault:
      break;
  }
  return "default";
}

std::string SizeText(double bytes) {
  const char* unit = "B";
  for (const char* const next : {"KB", "MB", "GB"}) {
    if (bytes < 1000) {
      break;
    }
    bytes /= 1000;
    unit = next;
  }
  char text[32];
  std::snprintf(text, sizeof(text), bytes < 10 && *unit != 'B' ? "%.1f %s" : "%.0f %s", bytes,
                unit);
  return text;
}

/// What the log is made of, and what a poll makes of it at each level.
class LogOutlook {
 public:
  LogOutlook(const SettingsReport& report, const Poll& poll) : poll_(poll) {
    for (const EffectiveSetting& setting : report.settings) {
      const auto take = [&setting](const std::string& key, int& value) {
        if (setting.key->name == key) {
          value = std::atoi(setting.value.c_str());
        }
      };
      take(kSettingTagLogLevel, level_);
      take(kSettingTagMaxLogRollIndex, copies_);
      take(kSettingTagMaxLogFileSize, file_size_);
    }
  }

  int Level() const { return level_; }
  int Copies() const { return copies_; }
  int FileSize() const { return file_size_; }
  double ADay(int level, bool are_silent) const { return BytesADay(poll_, level, are_silent); }
  std::optional<std::int64_t> Reach(int level, bool are_silent) const {
    return ReachMs(ADay(level, are_silent), file_size_, copies_);
  }
  bool KeepsWeek(int level, bool are_silent) const {
    return Reach(level, are_silent).value_or(kWeekMs) >= kWeekMs;
  }
  /// The one that tells most and keeps a week.
  int WeekLevel(bool are_silent) const {
    int level = 0;
    while (level < kLevels - 1 && !KeepsWeek(level, are_silent)) {
      ++level;
    }
    return level;
  }

 private:
  const Poll& poll_;
  int level_ = 0;
  int copies_ = 0;
  int file_size_ = 0;
};

std::string ReachText(const std::optional<std::int64_t>& reach_ms) {
  return reach_ms ? DurationText(*reach_ms) : "no limit";
}

void PrintOutlook(std::ostream& output, const LogOutlook& outlook, const Poll& poll) {
  output << "\nA poll of " << poll.devices << (poll.is_rs485 ? " RS485" : " TCP/IP")
         << " devices every " << DurationText(poll.every_ms) << ", " << poll.registers
         << " registers each, with " << outlook.Copies() << " copies of " << outlook.FileSize()
         << " bytes:\n";
  Table table({"LogLevel", ">lines a poll", ">bytes a poll", ">a day", ">reaches back",
               ">all silent: a day", ">reaches back"});
  for (int level = 0; level < kLevels; ++level) {
    const LogCost cost = CostOf(poll, level, false);
    const bool is_own = level == outlook.Level();
    table.Add({{kLevelNames[level] + std::string(is_own ? " (set)" : ""),
                is_own ? Tone::kHeading : Tone::kPlain},
               std::to_string(static_cast<std::int64_t>(cost.lines)),
               std::to_string(static_cast<std::int64_t>(cost.bytes)),
               SizeText(outlook.ADay(level, false)),
               ReachText(outlook.Reach(level, false)),
               SizeText(outlook.ADay(level, true)),
               ReachText(outlook.Reach(level, true))});
  }
  table.Print(output);
  const int when_answered = outlook.WeekLevel(false);
  const int when_silent = outlook.WeekLevel(true);
  output << "LogLevel " << when_answered << " keeps a week";
  if (when_silent > when_answered) {
    output << " as long as devices answer; with all of them silent only " << when_silent << " does";
  }
  output << ".\n";
}

Json OutlookJson(const LogOutlook& outlook, const Poll& poll) {
  Json json = {{"devices", poll.devices},
               {"every_ms", poll.every_ms},
               {"transport", poll.is_rs485 ? "rs485" : "tcpip"},
               {"registers", poll.registers},
               {"log_level", outlook.Level()},
               {"week_log_level", outlook.WeekLevel(false)},
               {"week_log_level_all_silent", outlook.WeekLevel(true)},
               {"levels", Json::array()}};
  for (int level = 0; level < kLevels; ++level) {
    Json of_level = {{"log_level", level}};
    for (const bool are_silent : {false, true}) {
      const LogCost cost = CostOf(poll, level, are_silent);
      const auto reach_ms = outlook.Reach(level, are_silent);
      of_level[are_silent ? "all_silent" : "all_answer"] = {
          {"lines_a_poll", std::llround(cost.lines)},
          {"bytes_a_poll", std::llround(cost.bytes)},
          {"bytes_a_day", std::llround(outlook.ADay(level, are_silent))},
          {"reach_ms", reach_ms ? Json(*reach_ms) : Json()}};
    }
    json["levels"].push_back(std::move(of_level));
  }
  return json;
}

std::string ValueText(const EffectiveSetting& setting) {
  if (setting.value.empty()) {
    return std::string("- (") + setting.key->when_unset + ")";
  }
  return setting.value + (*setting.key->unit == '\0' ? "" : " ") + setting.key->unit;
}

Json ValueJson(const EffectiveSetting& setting) {
  const bool is_number = setting.key->kind == SettingKind::kNumber ||
                         setting.key->kind == SettingKind::kFlag ||
                         setting.key->kind == SettingKind::kSize;
  if (setting.value.empty()) {
    return nullptr;
  }
  return is_number ? Json(std::atoi(setting.value.c_str())) : Json(setting.value);
}

}  // namespace

void PrintSettings(std::ostream& output, const SettingsReport& report,
                   const std::optional<Poll>& poll) {
  const bool has_colour = HasColour(output);
  Table table({"key", "value", "from", "text in the file"});
  for (const EffectiveSetting& setting : report.settings) {
    const bool is_fallback = setting.source == SettingSource::kFallback;
    table.Add({setting.key->name,
               ValueText(setting),
               {SourceText(setting.source), is_fallback ? Tone::kBad : Tone::kPlain},
               setting.text == setting.value ? "" : setting.text});
  }
  table.Print(output);
  output << '\n';
  for (const Mistake& mistake : report.mistakes) {
    std::string place = report.path;
    if (mistake.line > 0) {
      place += ":" + std::to_string(mistake.line) + ":" + std::to_string(mistake.column);
    }
    output << Coloured(place + ":", Tone::kBad, has_colour) << ' '
           << Printable(mistake.key + (mistake.key.empty() ? "" : ": ") + mistake.text) << '\n';
  }
  output << report.path << ": "
         << (report.mistakes.empty() ? "no mistakes"
                                     : std::to_string(report.mistakes.size()) +
                                           (report.mistakes.size() == 1 ? " mistake" : " mistakes"))
         << '\n';
  if (poll) {
    PrintOutlook(output, LogOutlook(report, *poll), *poll);
  }
}

void PrintSettingsJson(std::ostream& output, const SettingsReport& report,
                       const std::optional<Poll>& poll) {
  Json json = {{"file", report.path},
               {"found", report.is_found},
               {"settings", Json::array()},
               {"mistakes", Json::array()}};
  for (const EffectiveSetting& setting : report.settings) {
    Json entry = {{"key", setting.key->name},
                  {"value", ValueJson(setting)},
                  {"unit", setting.key->unit},
                  {"source", SourceText(setting.source)}};
    if (setting.source != SettingSource::kDefault) {
      entry["text"] = setting.text;
    }
    json["settings"].push_back(std::move(entry));
  }
  for (const Mistake& mistake : report.mistakes) {
    const auto number = [](int value) { return value > 0 ? Json(value) : Json(); };
    json["mistakes"].push_back({{"line", number(mistake.line)},
                                {"column", number(mistake.column)},
                                {"key", mistake.key},
                                {"text", mistake.text}});
  }
  if (poll) {
    json["poll"] = OutlookJson(LogOutlook(report, *poll), *poll);
  }
  PrintJsonLine(output, json);
}

}  // namespace tmsc::ctl
