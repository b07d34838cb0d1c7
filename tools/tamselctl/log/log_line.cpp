#include "log/log_line.h"

#include <Poco/DateTime.h>

#include <cstddef>

namespace tmsc::ctl {
namespace {

// How a line begins; a 0 stands for any digit, L for the letter of a level.
constexpr std::string_view kHeaderForm = "[0000-00-00 00:00:00.000 UTC] [L] ";
// What is the same in each header, and where in the form.
constexpr std::string_view kMark = " UTC] [";
constexpr std::size_t kMarkOffset = 24;
// Before each line on standard output.
constexpr std::string_view kEchoMark = "LoggerCom.log ";
constexpr std::string_view kRemarks[] = {"log_file error ", "log_file write error ",
                                         "LogOutput error ", "log lines lost on this console ["};

bool IsHeader(std::string_view text) {
  if (text.size() < kHeaderForm.size()) {
    return false;
  }
  for (std::size_t i = 0; i < kHeaderForm.size(); ++i) {
    const char form = kHeaderForm[i];
    const bool is_right = form == '0'   ? text[i] >= '0' && text[i] <= '9'
                          : form == 'L' ? kLogLevels.find(text[i]) != std::string_view::npos
                                        : text[i] == form;
    if (!is_right) {
      return false;
    }
  }
  return true;
}

/// Where the last header in a text begins; npos when there is none.
std::size_t FindLastHeader(std::string_view text) {
  for (std::size_t mark = text.rfind(kMark); mark != std::string_view::npos && mark >= kMarkOffset;
       mark = text.rfind(kMark, mark - 1)) {
    if (IsHeader(text.substr(mark - kMarkOffset))) {
      return mark - kMarkOffset;
    }
  }
  return std::string_view::npos;
}

bool EndsWith(std::string_view text, std::string_view end) {
  return text.size() >= end.size() && text.substr(text.size() - end.size()) == end;
}

bool StartsWith(std::string_view text, std::string_view start) {
  return text.substr(0, start.size()) == start;
}

int Number(std::string_view digits) {
  int number = 0;
  for (const char digit : digits) {
    number = 10 * number + (digit - '0');
  }
  return number;
}

std::optional<std::int64_t> ParseTime(std::string_view text) {
  const auto number = [text](std::size_t at, std::size_t count) {
    return Number(text.substr(at, count));
  };
  const int year = number(1, 4);
  const int month = number(6, 2);
  const int day = number(9, 2);
  const int hour = number(12, 2);
  const int minute = number(15, 2);
  const int second = number(18, 2);
  const int millisecond = number(21, 3);
  if (!Poco::DateTime::isValid(year, month, day, hour, minute, second, millisecond)) {
    return std::nullopt;
  }
  return Poco::DateTime(year, month, day, hour, minute, second, millisecond)
             .timestamp()
             .epochMicroseconds() /
         1000;
}

}  // namespace

ParsedLine ParseLogLine(std::string_view text) {
  ParsedLine parsed;
  if (!text.empty() && text.back() == '\r') {
    text.remove_suffix(1);  // copied by way of another system
  }
  if (text.empty()) {
    return parsed;
  }
  for (const std::string_view remark : kRemarks) {
    if (StartsWith(text, remark)) {
      parsed.is_remark = true;
      return parsed;
    }
  }
  const std::size_t begin = FindLastHeader(text);
  if (begin == std::string_view::npos) {
    parsed.is_damaged = true;
    return parsed;
  }
  const std::string_view before = text.substr(0, begin);
  // After a cut line the next one stands behind what is left of it.
  parsed.is_damaged = !before.empty() && (!EndsWith(before, kEchoMark) ||
                                          FindLastHeader(before) != std::string_view::npos);
  LogLine line;
  line.text = text.substr(begin);
  line.level = line.text[kHeaderForm.find('L')];
  const std::string_view rest = line.text.substr(kHeaderForm.size());
  const std::size_t tag_end = rest.find(' ');
  const auto time = ParseTime(line.text);
  if (!time || tag_end == 0 || tag_end == std::string_view::npos) {
    parsed.is_damaged = true;
    return parsed;
  }
  line.time_ms = *time;
  line.tag = rest.substr(0, tag_end);
  line.message = rest.substr(tag_end + 1);
  parsed.line = line;
  return parsed;
}

}  // namespace tmsc::ctl
