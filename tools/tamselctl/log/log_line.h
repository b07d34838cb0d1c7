#ifndef TAMSELCTL_LOG_LOG_LINE_H_
#define TAMSELCTL_LOG_LOG_LINE_H_

#include <cstdint>
#include <optional>
#include <string_view>

namespace tmsc::ctl {

/// The levels by their letters, from the lowest.
constexpr std::string_view kLogLevels = "VDIWEF";

/// A line of the daemon's log. The texts are parts of the line that was parsed.
struct LogLine {
  std::int64_t time_ms = 0;  // since 1970 UTC
  char level = 0;            // one of kLogLevels
  std::string_view tag;
  std::string_view message;
  std::string_view text;  // all of it, from its time on
};

struct ParsedLine {
  std::optional<LogLine> line;
  /// What stands there, or before the line, is no line, but perhaps a piece of one: power failed
  /// while it was written, or somebody else wrote there.
  bool is_damaged = false;
  /// A remark of the daemon's on its standard output, which has neither time nor tag.
  bool is_remark = false;
};

/// Takes a line apart, without its end, as it stands in the log file or, with the file's name and
/// whatever else in front, in the captured standard output of the daemon. Never fails; an empty
/// text is nothing at all. The views live as long as what `text` views.
ParsedLine ParseLogLine(std::string_view text);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_LOG_LINE_H_
