#ifndef TAMSELCTL_HEALTH_HEALTH_VIEW_H_
#define TAMSELCTL_HEALTH_HEALTH_VIEW_H_

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "health_reader.h"

namespace tmsc::ctl {

/// The name that people know a device by; empty: none.
using DeviceNamer = std::function<std::string(int channel, int transport, int address)>;

/// Which devices to show.
struct HealthSelection {
  std::optional<int> channel;
  std::vector<int> addresses;  // empty: all
  bool is_failing_only = false;
};

/// Exchanges of some time.
struct ExchangeCount {
  std::uint64_t answered = 0;
  std::uint64_t failed = 0;

  std::uint64_t Total() const { return answered + failed; }
};

/// How a device is doing: asked, and answering or not, or no longer asked.
enum class DeviceState { kAnswering, kFailing, kNotAsked };

struct DeviceHealth {
  tamsel_health_device record{};
  std::string name;
  std::string place;  // "192.0.2.7:502", "19200 8E1"
  /// By hour, oldest first; the last is the hour of HealthView::reference_ms.
  std::array<ExchangeCount, TAMSEL_HEALTH_HOURS> hours{};

  bool is_asked = true;

  DeviceState State() const {
    return !is_asked                           ? DeviceState::kNotAsked
           : IsHealthyCause(record.last_cause) ? DeviceState::kAnswering
                                               : DeviceState::kFailing;
  }
  bool IsFailing() const { return State() == DeviceState::kFailing; }
  bool HasEverAnswered() const;
  bool IsTcp() const { return record.transport == TAMSEL_HEALTH_TCPIP; }
  /// Microseconds; 0 when no response was timed.
  std::uint64_t MeanResponseUs() const;
  /// Sums of the newest `count` hours, the one that has just begun among them.
  ExchangeCount LastHours(int count) const;
  /// The hour that has begun and the one before it: 60 to 120 minutes.
  ExchangeCount LastHour() const { return LastHours(2); }
  /// The hour that has begun and the 24 before it.
  ExchangeCount LastDay() const { return LastHours(25); }
};

enum class DaemonState {
  kUnknown,  // the file says nothing of it
  kRunning,
  kStopped,
  kKilled,  // its process is gone and did not say so
  kSilent,  // the file is not renewed, yet there is a process of its number
};

/// A health file as it is shown, in every form.
struct HealthView {
  std::string path;
  std::string place;  // for people: the site and the machine or file
  std::int64_t now_ms = 0;
  /// What "the last hour" counts back from: now while the daemon runs, else when it was last seen.
  std::int64_t reference_ms = 0;
  DaemonState daemon_state = DaemonState::kUnknown;
  std::string version;  // of the daemon
  tamsel_health_process process{};
  std::vector<tamsel_health_channel> channels;
  /// Worst first: those that fail and have answered before, the longest silence first; those that
  /// never answered; then by the share of failures of the last day; those no longer asked.
  std::vector<DeviceHealth> devices;
  int damaged_records = 0;
  HealthSelection selection;

  bool IsAnyFailing() const;
};

HealthView MakeHealthView(const std::string& path, const HealthSnapshot& snapshot,
                          const HealthSelection& selection, const DeviceNamer& namer,
                          std::int64_t now_ms);

/// How many of the devices answer, in a sentence.
std::string SummaryText(const HealthView& view);
/// "RS485", "TCP/IP".
std::string TransportText(int transport);
/// The same as one word for programs, "rs485", "tcpip".
std::string TransportName(int transport);
/// "answering", "failing", "not_asked"; for programs.
std::string DeviceStateName(DeviceState state);
/// "running", "killed", ...; for programs, too.
std::string DaemonStateName(DaemonState state);
/// "running for 3 d 4 h", "killed; last seen 2026-07-25 14:03:22, 5 min 2 s ago".
std::string DaemonText(const HealthView& view);
/// "on", "outage", "off".
std::string PowerText(const tamsel_health_process& process);
/// "card gone, full or read-only for 2 h 5 min".
std::string CardText(const HealthView& view);
/// How a device is doing: "answered 4 s ago", "fails for 3 h 12 min", "never answered in 120
/// exchanges", "not asked for 3 d 4 h".
std::string StateText(const DeviceHealth& device, std::int64_t now_ms);
/// Why it fails, or failed before: "no answer in time, 40 in a row", "last: no answer in time".
std::string WhyText(const DeviceHealth& device);
/// How the failed exchanges ended, the most frequent first, at most `most` of the causes:
/// "no answer in time (12), connect refused (3)".
std::string FailuresText(const DeviceHealth& device, std::size_t most);
/// Requests of a channel that ended with a status other than 0.
std::uint64_t FailedRequests(const tamsel_health_channel& channel);
/// Those by their status, in words: "4 of status 8 (serial port not opened)".
std::string FailedRequestsText(const tamsel_health_channel& channel);
/// How long ago a moment was, "4 s ago"; "never" for 0.
std::string AgoText(std::int64_t moment_ms, std::int64_t now_ms);
/// Microseconds in milliseconds, "3.4", "120".
std::string MsText(std::uint64_t microseconds);
/// The share of failures, "0 %", "0.4 %", "100 %"; "-" without exchanges. 0 and 100 are exact.
std::string ShareText(const ExchangeCount& count);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_VIEW_H_
