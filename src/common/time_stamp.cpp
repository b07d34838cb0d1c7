#include "common/time_stamp.h"

#include <Poco/DateTimeFormatter.h>

#include <cstdint>
#include <cstring>
#include <string_view>

#include "common/time_of_day.h"

namespace tmsc {

namespace {

constexpr std::int64_t kMicrosecondsInSecond = 1000000;

/// What a format gave last on this thread, without the milliseconds at its end: that changes once a
/// second, and a busy log writes many lines a second. Trivially destructible, so that a thread may
/// log until its very end.
struct LastText {
  std::int64_t second;
  bool has_milliseconds;
  std::size_t format_size;  // 0: none yet
  std::size_t text_size;
  char format[48];
  char text[80];
};
thread_local LastText last_text{};

/// Where the first part of a second stands in a format; its size when there is none.
std::size_t FindPartOfSecond(std::string_view format) {
  for (std::size_t i = 0; i + 1 < format.size(); ++i) {
    if (format[i] == '%' && std::string_view("icFs").find(format[++i]) != std::string_view::npos) {
      return i - 1;
    }
  }
  return format.size();
}

void Remember(const std::string& format, std::int64_t second, const std::string& text) {
  const std::size_t part = FindPartOfSecond(format);
  const bool has_milliseconds = std::string_view(format).substr(part) == "%i";
  const std::size_t text_size = text.size() - (has_milliseconds ? 3 : 0);
  last_text.format_size = 0;
  if ((part == format.size() || has_milliseconds) && format.size() <= sizeof(last_text.format) &&
      text_size <= sizeof(last_text.text)) {
    last_text = {second, has_milliseconds, format.size(), text_size, {}, {}};
    std::memcpy(last_text.format, format.data(), format.size());
    std::memcpy(last_text.text, text.data(), text_size);
  }
}

}  // namespace

TimeStamp::TimeStamp() : time_stamp_(std::make_unique<Poco::Timestamp>(MicrosecondsSinceEpoch())) {}

TimeStamp::~TimeStamp() = default;

std::string TimeStamp::StringFromFormat(const std::string& formatString) {
  const std::int64_t microseconds = time_stamp_->epochMicroseconds();
  const std::int64_t second = microseconds / kMicrosecondsInSecond;
  if (last_text.second != second || formatString.empty() ||
      std::string_view(last_text.format, last_text.format_size) != formatString) {
    std::string text =
        Poco::DateTimeFormatter::format(*time_stamp_, formatString, Poco::DateTimeFormatter::UTC);
    if (microseconds >= 0) {
      Remember(formatString, second, text);
    }
    return text;
  }
  std::string text(last_text.text, last_text.text_size);
  if (last_text.has_milliseconds) {
    const auto milliseconds = static_cast<int>(microseconds % kMicrosecondsInSecond / 1000);
    for (const int place : {100, 10, 1}) {
      text.push_back(static_cast<char>('0' + milliseconds / place % 10));
    }
  }
  return text;
}

std::unique_ptr<TimeStamp> TimeStamp::CreateWithCurrentDate() {
  return std::make_unique<TimeStamp>();
}

}  // namespace tmsc
