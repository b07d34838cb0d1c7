#include "settings/log_reach.h"

#include <cmath>
#include <cstddef>

namespace tmsc::ctl {
namespace {

struct Coefficients {
  double lines_of_request;
  double lines_of_device;
  double bytes_of_request;
  double bytes_of_device;  // with an answer that holds no register
};

// Measured on the running daemon: requests that read 2 and 10 holding registers of 1 and 31
// devices, at each level; IP addresses of 11 characters and ports of 5. Each register is 4
// hexadecimal digits in the line of the answer. From level 2 on an exchange is told only when it
// fails, over RS485 not at all; from level 3 on not even that.
constexpr int kBytesOfRegister = 4;
constexpr int kLevelsTold = 3;
constexpr Coefficients kTcpAnswered[kLevelsTold] = {
    {12, 5, 784, 405.7}, {6, 5, 410, 405.7}, {0, 0, 0, 0}};
constexpr Coefficients kTcpSilent[kLevelsTold] = {
    {12, 3, 784, 246.7}, {6, 3, 410, 246.7}, {0, 1, 0, 81}};
constexpr Coefficients kRs485Answered[kLevelsTold] = {
    {18, 6, 1214, 443}, {9, 4, 626, 298.3}, {0, 0, 0, 0}};
constexpr Coefficients kRs485Silent[kLevelsTold] = {
    {18, 6, 1214, 433}, {9, 4, 626, 288.3}, {0, 0, 0, 0}};

// At level 0 a flush leaves a line every 5 minutes.
constexpr double kFlushBytesADay = 24 * 12 * 60;
constexpr double kDayMs = 24.0 * 60 * 60 * 1000;

}  // namespace

LogCost CostOf(const Poll& poll, int log_level, bool are_silent) {
  if (log_level >= kLevelsTold) {
    return {};
  }
  const Coefficients* const levels = poll.is_rs485 ? (are_silent ? kRs485Silent : kRs485Answered)
                                                   : (are_silent ? kTcpSilent : kTcpAnswered);
  const Coefficients& of_level = levels[log_level];
  const bool has_answers = !are_silent && of_level.lines_of_device > 0;
  const double of_registers = has_answers ? kBytesOfRegister * poll.registers : 0;
  return {of_level.lines_of_request + poll.devices * of_level.lines_of_device,
          of_level.bytes_of_request + poll.devices * (of_level.bytes_of_device + of_registers)};
}

double BytesADay(const Poll& poll, int log_level, bool are_silent) {
  return CostOf(poll, log_level, are_silent).bytes * kDayMs / static_cast<double>(poll.every_ms) +
         (log_level == 0 ? kFlushBytesADay : 0);
}

std::optional<std::int64_t> ReachMs(double bytes_a_day, double file_size, int copies) {
  if (bytes_a_day <= 0) {
    return std::nullopt;
  }
  return std::llround(copies * file_size / bytes_a_day * kDayMs);
}

}  // namespace tmsc::ctl
