#include "health/health_view.h"

#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <limits>
#include <numeric>
#include <tuple>
#include <utility>

#include "shared/printable.h"
#include "shared/serial_codes.h"
#include "shared/times.h"
#include "status_text.h"

namespace tmsc::ctl {
namespace {

constexpr std::int64_t kHourMs = 3600 * 1000;

/// A text of the file, which fills its field or ends with a NUL.
template <std::size_t size>
std::string PrintableField(const char (&text)[size]) {
  return Printable({text, ::strnlen(text, size)});
}

std::string PlaceText(const tamsel_health_device& record) {
  return record.transport == TAMSEL_HEALTH_TCPIP
             ? PrintableField(record.ip_address) + ":" + std::to_string(record.port)
             : LineText(record.port, record.line);
}

DeviceHealth MakeDevice(const tamsel_health_device& record, const tamsel_health_process& process,
                        const DeviceNamer& namer, std::int64_t reference_ms) {
  DeviceHealth device;
  device.record = record;
  device.is_asked = tamsel_health_is_asked(&record, &process, reference_ms) != 0;
  device.place = PlaceText(record);
  if (namer) {
    device.name = Printable(namer(record.channel, record.transport, record.address));
  }
  const std::int64_t reference_hour = reference_ms / kHourMs;
  const std::int64_t newest_hour = record.newest_hour;
  for (int index = 0; index < TAMSEL_HEALTH_HOURS; ++index) {
    const std::int64_t hour = reference_hour - (TAMSEL_HEALTH_HOURS - 1) + index;
    if (hour >= 0 && hour <= newest_hour && hour > newest_hour - TAMSEL_HEALTH_HOURS) {
      const tamsel_health_hour& cell = record.hours[hour % TAMSEL_HEALTH_HOURS];
      device.hours[static_cast<std::size_t>(index)] = {cell.answered, cell.failed};
    }
  }
  return device;
}

bool HasProcess(std::uint32_t pid) {
  // 0 and what would be negative stand for groups of processes.
  return pid > 0 && pid <= static_cast<std::uint32_t>(std::numeric_limits<pid_t>::max()) &&
         (::kill(static_cast<pid_t>(pid), 0) == 0 || errno == EPERM);
}

DaemonState FindDaemonState(const tamsel_health_process& process, std::int64_t now_ms) {
  if (process.started_ms == 0) {
    return DaemonState::kUnknown;
  }
  if (process.stopped_ms != 0) {
    return DaemonState::kStopped;
  }
  // A clock that was set back says nothing about when that was.
  const bool is_ahead = process.updated_ms > now_ms;
  if (!is_ahead && process.updated_ms >= now_ms - TAMSEL_HEALTH_STALE_MS) {
    return DaemonState::kRunning;
  }
  return !HasProcess(process.pid) ? DaemonState::kKilled
         : is_ahead               ? DaemonState::kRunning
                                  : DaemonState::kSilent;
}

std::int64_t LastSeenMs(const HealthSnapshot& snapshot) {
  std::int64_t last_ms = std::max(snapshot.process.updated_ms, snapshot.process.stopped_ms);
  for (const tamsel_health_device& device : snapshot.devices) {
    last_ms = std::max(last_ms, device.last_ms);
  }
  return last_ms;
}

bool IsSelected(const tamsel_health_device& record, const HealthSelection& selection) {
  const auto& addresses = selection.addresses;
  return (!selection.channel || *selection.channel == record.channel) &&
         (addresses.empty() ||
          std::find(addresses.begin(), addresses.end(), record.address) != addresses.end());
}

// Smaller is worse.
auto Rank(const DeviceHealth& device) {
  const ExchangeCount day = device.LastDay();
  const double share =
      day.Total() == 0 ? 0 : static_cast<double>(day.failed) / static_cast<double>(day.Total());
  const int state = !device.is_asked           ? 3
                    : !device.IsFailing()      ? 2
                    : device.HasEverAnswered() ? 0
                                               : 1;
  return std::make_tuple(state, state == 0 ? device.record.failing_since_ms : 0,
                         state == 2 ? -share : 0.0);
}

/// How long ago a moment is; none for one that a clock set back has put ahead.
std::string SinceText(std::int64_t moment_ms, std::int64_t now_ms) {
  return DurationText(now_ms - std::clamp<std::int64_t>(moment_ms, 0, now_ms));
}

std::string Plural(std::uint64_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

}  // namespace

bool DeviceHealth::HasEverAnswered() const {
  return record.ends[TAMSEL_CAUSE_ANSWERED] != 0 || record.ends[TAMSEL_CAUSE_SENT] != 0;
}

std::uint64_t DeviceHealth::MeanResponseUs() const {
  return record.response_count == 0 ? 0 : record.response_total_us / record.response_count;
}

ExchangeCount DeviceHealth::LastHours(int count) const {
  return std::accumulate(
      hours.end() - count, hours.end(), ExchangeCount{},
      [](const ExchangeCount& sum, const ExchangeCount& hour) {
        return ExchangeCount{sum.answered + hour.answered, sum.failed + hour.failed};
      });
}

bool HealthView::IsAnyFailing() const {
  return std::any_of(devices.begin(), devices.end(),
                     [](const DeviceHealth& device) { return device.IsFailing(); });
}

HealthView MakeHealthView(const std::string& path, const HealthSnapshot& snapshot,
                          const HealthSelection& selection, const DeviceNamer& namer,
                          std::int64_t now_ms) {
  HealthView view;
  view.path = path;
  view.now_ms = now_ms;
  view.process = snapshot.process;
  view.version = PrintableField(snapshot.process.version);
  view.daemon_state = FindDaemonState(snapshot.process, now_ms);
  view.reference_ms = view.daemon_state == DaemonState::kRunning
                          ? now_ms
                          : std::min(now_ms, std::max<std::int64_t>(LastSeenMs(snapshot), 1));
  view.damaged_records = snapshot.damaged_records;
  view.selection = selection;
  for (const tamsel_health_channel& channel : snapshot.channels) {
    if (!selection.channel || static_cast<int>(channel.channel) == *selection.channel) {
      view.channels.push_back(channel);
    }
  }
  for (const tamsel_health_device& record : snapshot.devices) {
    DeviceHealth device = MakeDevice(record, snapshot.process, namer, view.reference_ms);
    if (IsSelected(record, selection) && (!selection.is_failing_only || device.IsFailing())) {
      view.devices.push_back(std::move(device));
    }
  }
  std::stable_sort(
      view.devices.begin(), view.devices.end(),
      [](const DeviceHealth& left, const DeviceHealth& right) { return Rank(left) < Rank(right); });
  return view;
}

std::string SummaryText(const HealthView& view) {
  const auto failing = std::count_if(view.devices.begin(), view.devices.end(),
                                     [](const auto& device) { return device.IsFailing(); });
  const auto count = static_cast<std::ptrdiff_t>(view.devices.size());
  if (count == 0) {
    return view.selection.is_failing_only ? "No device fails."
           : view.selection.channel || !view.selection.addresses.empty()
               ? "No device of this selection has been asked yet."
               : "No device has been asked yet.";
  }
  const std::string devices = count == 1 ? " device" : " devices";
  const auto not_asked = std::count_if(view.devices.begin(), view.devices.end(),
                                       [](const auto& device) { return !device.is_asked; });
  if (not_asked > 0) {
    const auto asked = count - not_asked;
    return std::to_string(count) + devices + ", " + std::to_string(not_asked) +
           (not_asked == 1 ? " is" : " are") + " no longer asked" +
           (asked == 0     ? std::string(".")
            : failing == 0 ? ", all others answer."
                           : ", " + std::to_string(failing) + " of the others " +
                                 (failing == 1 ? "does" : "do") + " not answer.");
  }
  if (failing == 0) {
    return std::to_string(count) + devices + (count == 1 ? " answers." : ", all answer.");
  }
  return std::to_string(count) + devices + ", " + std::to_string(failing) +
         (failing == 1 ? " does not answer." : " do not answer.");
}

std::string TransportText(int transport) {
  return transport == TAMSEL_HEALTH_TCPIP ? "TCP/IP" : "RS485";
}

std::string TransportName(int transport) {
  return transport == TAMSEL_HEALTH_TCPIP ? "tcpip" : "rs485";
}

std::string DeviceStateName(DeviceState state) {
  switch (state) {
    case DeviceState::kAnswering:
      return "answering";
    case DeviceState::kFailing:
      return "failing";
    case DeviceState::kNotAsked:
      break;
  }
  return "not_asked";
}

std::string DaemonStateName(DaemonState state) {
  switch (state) {
    case DaemonState::kRunning:
      return "running";
    case DaemonState::kStopped:
      return "stopped";
    case DaemonState::kKilled:
      return "killed";
    case DaemonState::kSilent:
      return "silent";
    case DaemonState::kUnknown:
      break;
  }
  return "unknown";
}

std::string DaemonText(const HealthView& view) {
  const tamsel_health_process& process = view.process;
  const std::string last_seen =
      TimeText(process.updated_ms) + ", " +
      (process.updated_ms > view.now_ms ? "ahead of the clock of now"
                                        : AgoText(process.updated_ms, view.now_ms));
  switch (view.daemon_state) {
    case DaemonState::kRunning:
      return "running for " + SinceText(process.started_ms, view.now_ms);
    case DaemonState::kStopped:
      return "stopped " + TimeText(process.stopped_ms) + ", " +
             AgoText(process.stopped_ms, view.now_ms);
    case DaemonState::kKilled:
      return "killed or crashed; last seen " + last_seen;
    case DaemonState::kSilent:
      return "has not written since " + last_seen + ", though there is a process " +
             std::to_string(process.pid);
    case DaemonState::kUnknown:
      break;
  }
  return "the file says nothing of it";
}

std::string PowerText(const tamsel_health_process& process) {
  switch (process.power) {
    case TAMSEL_POWER_ON:
      return "on";
    case TAMSEL_POWER_OUTAGE:
      return "outage";
    case TAMSEL_POWER_OFF:
      return "off";
    default:
      return "state " + std::to_string(process.power);
  }
}

std::string CardText(const HealthView& view) {
  const std::int64_t since_ms = view.process.card_gone_since_ms;
  return since_ms == 0
             ? "card present"
             : "card gone, full or read-only for " + SinceText(since_ms, view.reference_ms);
}

std::string StateText(const DeviceHealth& device, std::int64_t now_ms) {
  const tamsel_health_device& record = device.record;
  if (!device.is_asked) {
    return "not asked for " + SinceText(record.last_ms, now_ms);
  }
  if (!device.IsFailing()) {
    return (record.last_cause == TAMSEL_CAUSE_SENT ? "sent " : "answered ") +
           AgoText(record.last_ms, now_ms);
  }
  return device.HasEverAnswered() ? "fails for " + SinceText(record.failing_since_ms, now_ms)
                                  : "never answered in " + Plural(record.exchanges, "exchange");
}

std::string WhyText(const DeviceHealth& device) {
  const tamsel_health_device& record = device.record;
  if (device.IsFailing()) {
    return HealthCauseText(record.last_cause, record.last_detail) +
           (record.failures_in_a_row > 1
                ? ", " + std::to_string(record.failures_in_a_row) + " in a row"
                : "");
  }
  if (!device.is_asked && !IsHealthyCause(record.last_cause)) {
    return "last: " + HealthCauseText(record.last_cause, record.last_detail);
  }
  return device.LastDay().failed == 0 ? "" : "earlier: " + FailuresText(device, 2);
}

std::string FailuresText(const DeviceHealth& device, std::size_t most) {
  std::vector<std::pair<std::uint32_t, int>> failures;
  for (int cause = 0; cause < TAMSEL_HEALTH_CAUSES; ++cause) {
    if (device.record.ends[cause] != 0 && !IsHealthyCause(cause)) {
      failures.emplace_back(device.record.ends[cause], cause);
    }
  }
  std::sort(failures.rbegin(), failures.rend());
  failures.resize(std::min(failures.size(), most));
  std::string text;
  for (const auto& [count, cause] : failures) {
    text +=
        (text.empty() ? "" : ", ") + HealthCauseText(cause) + " (" + std::to_string(count) + ")";
  }
  return text;
}

std::uint64_t FailedRequests(const tamsel_health_channel& channel) {
  return std::accumulate(std::begin(channel.statuses), std::end(channel.statuses),
                         std::uint64_t{0}) -
         channel.statuses[kDeviceCommunicationStatusNoError + 1];
}

std::string FailedRequestsText(const tamsel_health_channel& channel) {
  std::string text;
  for (int index = 0; index < TAMSEL_HEALTH_STATUSES; ++index) {
    const int status = index - 1;
    if (channel.statuses[index] != 0 && status != kDeviceCommunicationStatusNoError) {
      text += (text.empty() ? "" : ", ") + std::to_string(channel.statuses[index]) + " of status " +
              std::to_string(status) + " (" + StatusText(status) + ")";
    }
  }
  return text;
}

std::string AgoText(std::int64_t moment_ms, std::int64_t now_ms) {
  return moment_ms == 0 ? "never" : SinceText(moment_ms, now_ms) + " ago";
}

std::string MsText(std::uint64_t microseconds) {
  char text[32];
  const double milliseconds = static_cast<double>(microseconds) / 1000;
  std::snprintf(text, sizeof(text), milliseconds < 9.95 ? "%.1f" : "%.0f", milliseconds);
  return text;
}

std::string ShareText(const ExchangeCount& count) {
  if (count.Total() == 0) {
    return "-";
  }
  const double percent =
      100 * static_cast<double>(count.failed) / static_cast<double>(count.Total());
  if (count.failed == 0 || count.answered == 0) {
    return count.failed == 0 ? "0 %" : "100 %";
  }
  if (percent < 0.1 || percent > 99) {
    return percent < 0.1 ? "<0.1 %" : ">99 %";
  }
  char text[16];
  std::snprintf(text, sizeof(text), percent < 9.95 ? "%.1f %%" : "%.0f %%", percent);
  return text;
}

}  // namespace tmsc::ctl
