#ifndef TAMSELCTL_LOG_LOG_SUMMARY_H_
#define TAMSELCTL_LOG_LOG_SUMMARY_H_

#include <cstdint>
#include <iosfwd>
#include <map>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

#include "log/exchange_tracker.h"

namespace tmsc::ctl {

/// How often something ended in each way.
using EndCounts = std::map<std::string, std::uint64_t, std::less<>>;

/// Which channels and devices to tell about; empty: all.
struct SummaryScope {
  std::vector<int> channels;
  std::vector<int> devices;
};

/// What a log tells, counted.
class LogSummary {
 public:
  /// Takes the next line of the log.
  void Take(const LogLine& line);
  /// A line that is none, or not whole.
  void TakeDamaged() { ++damaged_; }
  /// The log is over. To be called once, before anything is printed.
  void End();

  std::uint64_t Lines() const { return lines_; }

  void PrintText(std::ostream& output, const SummaryScope& scope) const;
  /// One JSON object.
  void PrintJson(std::ostream& output, const SummaryScope& scope) const;

 private:
  struct ChannelCounts {
    std::uint64_t requests = 0;
    std::uint64_t rs485 = 0;
    std::uint64_t tcpip = 0;
    std::uint64_t busy = 0;
    std::uint64_t unfinished = 0;
    std::uint64_t failed = 0;
    std::int64_t longest_ms = 0;
    EndCounts failures;
    // Of the request in progress.
    std::int64_t begin_ms = 0;  // 0: there is none
    bool is_port_refused = false;
  };
  /// Channel (0: not told), whether TCP/IP, address (0: not told), place, and the addresses that
  /// may be it.
  using DeviceKey = std::tuple<int, bool, int, std::string, std::string>;
  struct DeviceCounts {
    std::uint64_t exchanges = 0;
    std::uint64_t failed = 0;
    std::int64_t last_failed_ms = 0;
    EndCounts failures;
  };
  /// From a start of the daemon to the next.
  struct Run {
    bool has_lines = false;
    bool is_stopped = false;
    std::size_t least_level = 0;
  };

  void TakeRun(const LogLine& line, const LogMessage& message);
  void TakeRequest(const LogLine& line, const LogMessage& message, const Owners& owners);
  void TakeExchanges();
  void EndRequest(int channel, std::int64_t time_ms);
  void EndRun();
  void Count(const DeviceKey& key, std::string_view words, bool is_failed, std::int64_t time_ms);
  void Count(const TcpExchange& exchange, int channel);
  std::vector<std::string> Notes() const;

  ExchangeTracker tracker_;
  std::uint64_t lines_ = 0;
  std::uint64_t damaged_ = 0;
  std::int64_t first_ms_ = 0;
  std::int64_t last_ms_ = 0;
  std::uint64_t starts_ = 0;
  std::uint64_t starts_without_stop_ = 0;
  std::uint64_t outages_ = 0;
  std::uint64_t recoveries_ = 0;
  std::uint64_t card_gone_ = 0;
  std::uint64_t card_back_ = 0;
  std::uint64_t lines_lost_ = 0;
  std::uint64_t exchanges_untold_ = 0;    // whose device the log does not tell
  std::uint64_t exchanges_inferred_ = 0;  // whose channel is that of the device's other exchanges
  EndCounts service_;
  EndCounts clients_refused_;
  Run run_;
  std::uint64_t runs_ = 0;
  // By the lowest level of their lines, when that is above debug.
  std::map<char, std::uint64_t> quiet_runs_;
  std::map<int, ChannelCounts> channels_;  // 0: not told
  std::map<DeviceKey, DeviceCounts> devices_;
  std::map<std::string, std::uint32_t> channels_of_place_;
  std::vector<TcpExchange> of_several_channels_;
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_LOG_SUMMARY_H_
