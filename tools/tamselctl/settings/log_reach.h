#ifndef TAMSELCTL_SETTINGS_LOG_REACH_H_
#define TAMSELCTL_SETTINGS_LOG_REACH_H_

#include <cstdint>
#include <optional>

namespace tmsc::ctl {

/// Requests that come again and again.
struct Poll {
  int devices = 31;
  std::int64_t every_ms = 5000;
  bool is_rs485 = false;
  int registers = 10;  // read from each device
};

/// What one request of a poll leaves in the log.
struct LogCost {
  double lines = 0;
  double bytes = 0;
};

/// At LogLevel 0 to 5, when every device answers or when all are silent.
LogCost CostOf(const Poll& poll, int log_level, bool are_silent);

/// What a day of the poll, and the daemon by itself, writes.
double BytesADay(const Poll& poll, int log_level, bool are_silent);

/// How long a log reaches back at least, ms: right after a rotation, when the live file is empty.
/// Nothing when nothing is written.
std::optional<std::int64_t> ReachMs(double bytes_a_day, double file_size, int copies);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_LOG_REACH_H_
