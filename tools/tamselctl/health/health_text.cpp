#include "health/health_text.h"

#include <algorithm>
#include <iterator>
#include <map>
#include <ostream>
#include <tuple>
#include <utility>

#include "shared/address_ranges.h"
#include "shared/table.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

/// Channel, transport and last cause of devices that never answered.
using SilentKey = std::tuple<int, int, int>;

struct SilentGroup {
  std::vector<int> addresses;
  std::uint32_t most_exchanges = 0;
};

using SilentGroups = std::map<SilentKey, SilentGroup>;

SilentKey KeyOf(const DeviceHealth& device) {
  return {device.record.channel, device.record.transport, device.record.last_cause};
}

// One exchange that failed is a device that is just coming up; three are an address without one.
bool IsSilent(const DeviceHealth& device) {
  constexpr std::uint32_t kFewExchanges = 3;
  return device.IsFailing() && !device.HasEverAnswered() &&
         device.record.exchanges >= kFewExchanges;
}

SilentGroups GroupSilent(const HealthView& view) {
  constexpr std::size_t kFewDevices = 3;
  SilentGroups groups;
  if (view.selection.is_failing_only || !view.selection.addresses.empty()) {
    return groups;
  }
  for (const DeviceHealth& device : view.devices) {
    if (IsSilent(device)) {
      SilentGroup& group = groups[KeyOf(device)];
      group.addresses.push_back(device.record.address);
      group.most_exchanges = std::max(group.most_exchanges, device.record.exchanges);
    }
  }
  for (auto group = groups.begin(); group != groups.end();) {
    group = group->second.addresses.size() < kFewDevices ? groups.erase(group) : std::next(group);
  }
  return groups;
}

Tone ToneOf(DaemonState state) {
  return state == DaemonState::kRunning   ? Tone::kGood
         : state == DaemonState::kStopped ? Tone::kWarning
                                          : Tone::kBad;
}

void PrintDaemon(std::ostream& output, const HealthView& view) {
  const bool has_colour = HasColour(output);
  const auto coloured = [&](const std::string& text, Tone tone) {
    return Coloured(text, tone, has_colour);
  };
  const tamsel_health_process& process = view.process;
  output << "daemon" << (view.version.empty() ? "" : " " + view.version) << ": "
         << coloured(DaemonText(view), ToneOf(view.daemon_state));
  if (view.daemon_state != DaemonState::kUnknown) {
    const std::uint32_t restarts = process.starts == 0 ? 0 : process.starts - 1;
    output << "\n  " << restarts << (restarts == 1 ? " restart, " : " restarts, ")
           << coloured("power " + PowerText(process),
                       process.power == TAMSEL_POWER_ON ? Tone::kPlain : Tone::kBad)
           << ", "
           << coloured(CardText(view), process.card_gone_since_ms == 0 ? Tone::kPlain : Tone::kBad)
           << ", "
           << coloured(std::to_string(process.log_lines_lost) + " log lines lost",
                       process.log_lines_lost == 0 ? Tone::kPlain : Tone::kWarning)
           << ", " << process.descriptors_in_use << " of " << process.descriptor_limit
           << " descriptors";
  }
  output << '\n';
  if (view.damaged_records > 0) {
    output << coloured(std::to_string(view.damaged_records) +
                           " damaged records of the file are left out",
                       Tone::kWarning)
           << '\n';
  }
}

std::string CycleText(const tamsel_health_channel& channel) {
  return channel.cycles == 0 ? ""
                             : MsText(channel.cycle_last_us) + " / " +
                                   MsText(channel.cycle_total_us / channel.cycles) + " / " +
                                   MsText(channel.cycle_most_us);
}

void PrintChannels(std::ostream& output, const HealthView& view) {
  Table table({"channel", ">requests", ">busy", ">failed", ">unanswered", "failed with",
               ">longest ms", "when", ">RS485 cycle ms (last / mean / most)"});
  for (const tamsel_health_channel& channel : view.channels) {
    const std::uint64_t failed = FailedRequests(channel);
    table.Add(
        {std::to_string(channel.channel),
         std::to_string(channel.requests),
         {std::to_string(channel.busy_refusals),
          channel.busy_refusals == 0 ? Tone::kPlain : Tone::kWarning},
         {std::to_string(failed), failed == 0 ? Tone::kPlain : Tone::kBad},
         {std::to_string(channel.unanswered), channel.unanswered == 0 ? Tone::kPlain : Tone::kBad},
         FailedRequestsText(channel),
         std::to_string(channel.longest_ms),
         TimeText(channel.longest_at_ms),
         CycleText(channel)});
  }
  if (!table.IsEmpty()) {
    output << '\n';
    constexpr std::size_t kThroughWhy = 6;
    table.Print(output, kThroughWhy);
  }
}

Tone ToneOf(const DeviceHealth& device) {
  return !device.is_asked                ? Tone::kPlain
         : device.IsFailing()            ? Tone::kBad
         : device.LastHour().failed == 0 ? Tone::kGood
                                         : Tone::kWarning;
}

std::vector<Table::Cell> DeviceRow(const DeviceHealth& device, std::int64_t now_ms) {
  const tamsel_health_device& record = device.record;
  const auto ms = [&](std::uint64_t microseconds) {
    return record.response_count == 0 ? "" : MsText(microseconds);
  };
  return {std::to_string(record.channel) + " " + TransportText(record.transport),
          std::to_string(record.address),
          device.name,
          {StateText(device, now_ms), ToneOf(device)},
          WhyText(device),
          ms(record.response_last_us),
          ms(device.MeanResponseUs()),
          ms(record.response_most_us),
          ShareText(device.LastHour()),
          ShareText(device.LastDay()),
          device.IsFailing() ? TimeText(record.failing_since_ms) : "",
          device.place};
}

void PrintDevices(std::ostream& output, const HealthView& view, const SilentGroups& groups) {
  const bool has_names =
      std::any_of(view.devices.begin(), view.devices.end(),
                  [](const DeviceHealth& device) { return !device.name.empty(); });
  std::vector<std::string> headings = {"channel", ">device",  "name",        "state",
                                       "why",     ">last ms", ">mean",       ">most",
                                       ">1 h",    ">24 h",    "fails since", "place"};
  constexpr std::ptrdiff_t kNameColumn = 2;
  if (!has_names) {
    headings.erase(headings.begin() + kNameColumn);
  }
  Table table(headings);
  for (const DeviceHealth& device : view.devices) {
    if (IsSilent(device) && groups.count(KeyOf(device)) != 0) {
      continue;
    }
    std::vector<Table::Cell> row = DeviceRow(device, view.now_ms);
    if (!has_names) {
      row.erase(row.begin() + kNameColumn);
    }
    table.Add(std::move(row));
  }
  if (!table.IsEmpty()) {
    table.Print(output, kNameColumn + (has_names ? 3 : 2));
  }
}

void PrintSilent(std::ostream& output, const SilentGroups& groups) {
  for (const auto& [key, group] : groups) {
    const auto [channel, transport, cause] = key;
    std::vector<int> addresses = group.addresses;
    std::sort(addresses.begin(), addresses.end());
    output << Coloured("never answered", Tone::kBad, HasColour(output)) << " on channel " << channel
           << " " << TransportText(transport) << ": " << RangesText(addresses) << " ("
           << HealthCauseText(cause) << "; up to " << group.most_exchanges << " exchanges each)\n";
  }
}

}  // namespace

void PrintHealthText(std::ostream& output, const HealthView& view) {
  PrintDaemon(output, view);
  PrintChannels(output, view);
  output << '\n' << SummaryText(view) << '\n';
  const SilentGroups groups = GroupSilent(view);
  PrintSilent(output, groups);
  // Last: what a screen has no room for are devices, the worst ones above.
  PrintDevices(output, view, groups);
}

}  // namespace tmsc::ctl
