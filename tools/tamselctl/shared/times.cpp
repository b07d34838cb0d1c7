#include "shared/times.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>

#include "common/time_of_day.h"

namespace tmsc::ctl {
namespace {

constexpr std::int64_t kSecond = 1000;
constexpr std::int64_t kMinute = 60 * kSecond;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;

struct Unit {
  const char* name;
  std::int64_t ms;
};
constexpr Unit kUnits[] = {{"d", kDay}, {"h", kHour}, {"min", kMinute}, {"s", kSecond}};

std::string Format(std::int64_t moment_ms, const char* format, bool is_utc) {
  const std::time_t seconds = static_cast<std::time_t>(moment_ms / kSecond);
  std::tm parts{};
  char text[32];
  if ((is_utc ? ::gmtime_r(&seconds, &parts) : ::localtime_r(&seconds, &parts)) == nullptr ||
      std::strftime(text, sizeof(text), format, &parts) == 0) {
    return std::to_string(moment_ms) + " ms since 1970";
  }
  return text;
}

}  // namespace

std::int64_t NowMs() {
  return MicrosecondsSinceEpoch() / 1000;
}

std::string TimeText(std::int64_t moment_ms) {
  return moment_ms == 0 ? "never" : Format(moment_ms, "%Y-%m-%d %H:%M:%S", false);
}

std::string IsoTime(std::int64_t moment_ms) {
  if (moment_ms == 0) {
    return {};
  }
  char fraction[8];
  std::snprintf(fraction, sizeof(fraction), ".%03dZ", static_cast<int>(moment_ms % kSecond));
  return Format(moment_ms, "%Y-%m-%dT%H:%M:%S", true) + fraction;
}

std::string ZoneText(std::int64_t moment_ms) {
  return Format(moment_ms, "%Z (UTC%z)", false);
}

std::string DayTimeText(std::int64_t moment_ms) {
  return Format(moment_ms, "%a %H:%M", false);
}

std::string DurationText(std::int64_t duration_ms) {
  if (duration_ms < kSecond) {
    return std::to_string(duration_ms) + " ms";
  }
  const Unit* unit = std::begin(kUnits);
  while (unit->ms > duration_ms) {
    ++unit;
  }
  std::string text = std::to_string(duration_ms / unit->ms) + " " + unit->name;
  const Unit* next = unit + 1;
  if (next != std::end(kUnits) && duration_ms % unit->ms >= next->ms) {
    text += " " + std::to_string(duration_ms % unit->ms / next->ms) + " " + next->name;
  }
  return text;
}

std::optional<std::int64_t> ParseDuration(const std::string& text) {
  const std::size_t digits = text.find_first_not_of("0123456789.");
  const std::string number = text.substr(0, digits);
  char* end = nullptr;
  const double value = std::strtod(number.c_str(), &end);
  if (number.empty() || end != number.c_str() + number.size()) {
    return std::nullopt;
  }
  const std::string unit_name = digits == std::string::npos ? "s" : text.substr(digits);
  std::int64_t unit_ms = unit_name == "ms" ? 1 : unit_name == "m" ? kMinute : 0;
  for (const Unit& unit : kUnits) {
    unit_ms = unit_name == unit.name ? unit.ms : unit_ms;
  }
  constexpr double kLongestMs = 100.0 * 366 * kDay;
  const double duration = value * static_cast<double>(unit_ms);
  return unit_ms == 0 || duration > kLongestMs ? std::nullopt
                                               : std::optional(std::llround(duration));
}

std::optional<std::int64_t> ParseMoment(const std::string& text, std::int64_t now_ms) {
  if (const auto before = ParseDuration(text)) {
    return now_ms - *before;
  }
  std::tm parts{};
  std::string rest = text;
  const auto take = [&](const char* format) {
    const char* end = ::strptime(rest.c_str(), format, &parts);
    if (end != nullptr) {
      rest.erase(0, static_cast<std::size_t>(end - rest.c_str()));
    }
    return end != nullptr;
  };
  if (!take("%Y-%m-%d")) {
    return std::nullopt;
  }
  double fraction = 0;
  if (!rest.empty() && rest.front() == 'T') {
    rest.front() = ' ';
  }
  if (!rest.empty() && take(" %H:%M") && take(":%S") && !rest.empty() && rest.front() == '.') {
    char* end = nullptr;
    fraction = std::strtod(rest.c_str(), &end);
    rest.erase(0, static_cast<std::size_t>(end - rest.c_str()));
  }
  const bool is_utc = rest == "Z";
  if (!rest.empty() && !is_utc) {
    return std::nullopt;
  }
  parts.tm_isdst = -1;
  const std::time_t seconds = is_utc ? ::timegm(&parts) : std::mktime(&parts);
  return std::int64_t{seconds} * kSecond + std::llround(fraction * kSecond);
}

}  // namespace tmsc::ctl
