#include "settings/settings_check.h"

#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdlib>
#include <optional>

#include "shared/nearest_word.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc::ctl {
namespace {

/// The mistakes of one key.
struct Findings {
  std::vector<std::string> mistakes;
  bool is_unusable = false;  // something else holds in place of the text
};

std::string Quoted(const std::string& text) {
  return "\"" + text + "\"";
}

Findings CheckNumber(const SettingKey& key, const std::string& text, LoggerSettingManager& settings,
                     const std::string& value) {
  const std::string holds = value.empty() ? "; it counts as not set" : "; " + value + " holds";
  const int number = settings.GetIntvalueFromSettingItems(key.name, 0);
  if (number != settings.GetIntvalueFromSettingItems(key.name, 1)) {
    return {
        {(text.empty() ? "empty" : Quoted(text) + " is no number, or too large for one") + holds},
        true};
  }
  Findings findings;
  const std::size_t digits = text.find_first_of("0123456789");
  const std::size_t behind = text.find_first_not_of("0123456789", digits);
  if (behind != std::string::npos && !StringUtil::Trim(text.substr(behind)).empty()) {
    findings.mistakes.push_back(Quoted(text) + " is read as " + std::to_string(number) +
                                ": what stands behind a decimal number is not read");
  }
  if (number < key.least || number > key.most) {
    const std::string range = key.most == INT_MAX
                                  ? std::to_string(key.least) + " or more"
                                  : std::to_string(key.least) + " to " + std::to_string(key.most);
    const bool is_kept = value == std::to_string(number);
    findings.mistakes.push_back(std::to_string(number) + " is not " + range +
                                (is_kept ? ": touched once, after the start" : holds));
    findings.is_unusable = !is_kept;
  }
  return findings;
}

/// Bytes that a reader would take a size text for; nothing when it is none.
std::optional<double> SeemingSize(const std::string& text) {
  std::string rest;
  for (const char letter : text) {
    if (letter != ' ' && letter != '_') {
      rest += static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    }
  }
  const bool is_hex = StringUtil::StartWith(rest, "0x");
  const std::size_t end = rest.find_first_not_of(is_hex ? "0123456789acdefx" : "0123456789.,-");
  std::string number = rest.substr(0, end);
  std::replace(number.begin(), number.end(), ',', '.');
  char* parsed = nullptr;
  double size = std::strtod(number.c_str(), &parsed);
  if (number.empty() || *parsed != '\0') {
    return std::nullopt;
  }
  const std::string unit = end == std::string::npos ? "" : rest.substr(end);
  for (const char* const prefix : {"", "k", "m", "g"}) {
    for (const char* const suffix : {"", "b", "ib", "byte", "bytes"}) {
      if (unit == std::string(prefix) + suffix) {
        return size;
      }
    }
    size *= 1024;
  }
  return std::nullopt;
}

Findings CheckSize(const std::string& text, const std::string& value) {
  const double size = std::strtod(value.c_str(), nullptr);
  const int read = StringUtil::StringFileSizeToLogFileSize(text);
  if (text.empty() || read == 0) {
    return {{(text.empty() ? std::string("empty") : Quoted(text) + " is a size of 0") + "; " +
             value + " bytes hold"},
            true};
  }
  const auto seeming = SeemingSize(text);
  if (!seeming) {
    return {{Quoted(text) + " is no size such as 500KB, 5MB or 65536; it is read as " + value +
             " bytes"},
            false};
  }
  if (*seeming < 0 || *seeming > INT_MAX) {
    return {{Quoted(text) + " is not below 2 GiB, or negative; " + value + " bytes hold"}, true};
  }
  if (std::llround(*seeming) != std::llround(size)) {
    return {{Quoted(text) + " is read as " + value +
             " bytes: write whole decimal numbers without a 0 in front, and B, KB, MB or GB "
             "right behind"},
            false};
  }
  return {};
}

std::string WhyNotUsable(const SettingKey& key, const std::string& path, const DaemonUser& user) {
  struct stat status {};
  const bool is_there = ::stat(path.c_str(), &status) == 0;
  if (key.kind == SettingKind::kFolder) {
    if (!is_there) {
      return path + " does not exist; without a card there the daemon makes the folder";
    }
    return user.WhyNoFolder(path + "/velmorahome/Log");
  }
  std::string folder = FileUtil::GetDirectory(path);
  folder = folder.empty() ? "." : folder;
  // A socket that is there is replaced.
  if (key.kind == SettingKind::kSocket && is_there && !S_ISDIR(status.st_mode)) {
    return user.WhyNoFolder(folder);
  }
  return user.WhyNoFile(path);
}

Findings CheckPath(const SettingKey& key, const std::string& path, const DaemonUser* user) {
  Findings findings;
  const auto add = [&findings](const std::string& text) { findings.mistakes.push_back(text); };
  if (path.empty()) {
    if (key.name != kSettingTagHealthFilePath) {
      add(std::string("empty: ") + key.when_unset);
    }
    return findings;
  }
  if (path != StringUtil::Trim(path)) {
    add("blanks or line ends around a path belong to it: " + Quoted(path));
  } else if (path.front() != '/') {
    add(path + " is relative to the folder that the daemon is started in");
  }
  constexpr std::size_t kLongestSocketPath = sizeof(sockaddr_un::sun_path) - 1;
  if (key.kind == SettingKind::kSocket && path.size() > kLongestSocketPath) {
    add(std::to_string(path.size()) + " bytes are more than the " +
        std::to_string(kLongestSocketPath) +
        " that a socket's path may have; no requests are served");
  } else if (path.size() >= PATH_MAX) {
    add(std::to_string(path.size()) + " bytes are too long for a path");
  } else if (user != nullptr) {
    const std::string obstacle = WhyNotUsable(key, path, *user);
    if (!obstacle.empty()) {
      add(obstacle);
    }
  }
  return findings;
}

Findings CheckValue(const SettingKey& key, const SettingEntry* entry, const std::string& value,
                    LoggerSettingManager& settings, const DaemonUser* user) {
  switch (key.kind) {
    case SettingKind::kNumber:
    case SettingKind::kFlag:
      return entry != nullptr ? CheckNumber(key, entry->value, settings, value) : Findings{};
    case SettingKind::kSize:
      return entry != nullptr ? CheckSize(entry->value, value) : Findings{};
    default:
      // A default may be wrong as well: on this machine.
      return CheckPath(key, value, user);
  }
}

void CheckKeys(const SettingsFile& file, std::vector<Mistake>& mistakes) {
  std::vector<std::string> names;
  for (const SettingKey& key : SettingKeys()) {
    names.push_back(key.name);
  }
  for (auto entry = file.entries.begin(); entry != file.entries.end(); ++entry) {
    const auto has_key = [&entry](const SettingEntry& other) { return other.key == entry->key; };
    if (std::find(names.begin(), names.end(), entry->key) == names.end()) {
      const std::size_t most_errors = std::max<std::size_t>(2, entry->key.size() / 3);
      const std::string nearest = NearestWord(entry->key, names, most_errors);
      mistakes.push_back(
          {entry->line, entry->column, entry->key,
           "no key of the daemon's" + (nearest.empty() ? "" : "; did you mean " + nearest + "?")});
    } else if (const auto last = std::find_if(file.entries.rbegin(), file.entries.rend(), has_key);
               &*last != &*entry) {
      mistakes.push_back(
          {entry->line, entry->column, entry->key,
           "given again in line " + std::to_string(last->line) + ", which is what counts"});
    }
  }
}

}  // namespace

SettingsReport CheckSettings(const std::string& path, LoggerSettingManager& settings,
                             const DaemonUser* user) {
  SettingsFile file = ReadSettingsFile(path);
  SettingsReport report{path, file.is_found, {}, std::move(file.mistakes)};
  if (file.is_found && user != nullptr && !user->MayRead(path)) {
    report.mistakes.push_back({0, 0, "", user->Name() + " may not read this file"});
  }
  CheckKeys(file, report.mistakes);
  for (const SettingKey& key : SettingKeys()) {
    const auto entry =
        std::find_if(file.entries.rbegin(), file.entries.rend(),
                     [&key](const SettingEntry& other) { return other.key == key.name; });
    const SettingEntry* const found = entry == file.entries.rend() ? nullptr : &*entry;
    const std::string value = key.value(settings);
    const Findings findings = CheckValue(key, found, value, settings, user);
    report.settings.push_back({&key, value,
                               found == nullptr       ? SettingSource::kDefault
                               : findings.is_unusable ? SettingSource::kFallback
                                                      : SettingSource::kFile,
                               found == nullptr ? "" : found->value});
    for (const std::string& text : findings.mistakes) {
      report.mistakes.push_back({found == nullptr ? 0 : found->line,
                                 found == nullptr ? 0 : found->column, key.name, text});
    }
  }
  std::stable_sort(report.mistakes.begin(), report.mistakes.end(),
                   [](const Mistake& one, const Mistake& other) {
                     return std::pair(one.line, one.column) < std::pair(other.line, other.column);
                   });
  return report;
}

}  // namespace tmsc::ctl
