#include "health/health_page.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <ostream>
#include <utility>

#include "health/health_page_style.h"
#include "health/html_writer.h"
#include "shared/address_ranges.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

constexpr std::int64_t kHourMs = 3600 * 1000;
/// Hours between two labels of the map's axis; the style sheet counts on it.
constexpr int kAxisHours = 6;

std::string FullName(const DeviceHealth& device) {
  return std::to_string(device.record.address) + (device.name.empty() ? "" : " " + device.name);
}

const char* ToneOf(const DeviceHealth& device) {
  return !device.is_asked                ? "faint"
         : device.IsFailing()            ? "bad"
         : device.LastHour().failed != 0 ? "warn"
                                         : "good";
}

/// Devices by channel and transport, "channel 1 TCP/IP: 4-31; channel 2 RS485: 7".
class DeviceSet {
 public:
  void Add(const DeviceHealth& device) {
    devices_[{device.record.channel, device.record.transport}][device.record.address] = &device;
    ++count_;
  }
  int Count() const { return count_; }
  /// `is_named`: those that have a name with it, one by one.
  std::string Text(bool is_named) const {
    std::string text;
    for (const auto& [place, devices] : devices_) {
      text += (text.empty() ? "channel " : "; channel ") + std::to_string(place.first) + " " +
              TransportText(place.second) + ":";
      std::vector<int> others;
      const char* separator = " ";
      for (const auto& [address, device] : devices) {
        if (!is_named || device->name.empty()) {
          others.push_back(address);
        } else {
          text += separator + FullName(*device);
          separator = ", ";
        }
      }
      text += others.empty() ? "" : separator + RangesText(others);
    }
    return text;
  }

 private:
  std::map<std::pair<int, int>, std::map<int, const DeviceHealth*>> devices_;
  int count_ = 0;
};

void PrintHeader(std::ostream& output, const HealthView& view) {
  const tamsel_health_process& process = view.process;
  output << "<header>\n<p class=\"faint\">" << Html(view.place) << "</p>\n<h1>"
         << Html(SummaryText(view)) << "</h1>\n";
  const bool is_running = view.daemon_state == DaemonState::kRunning;
  output << "<p>Daemon" << (view.version.empty() ? "" : " ") << Html(view.version)
         << ": <span class=\"" << (is_running ? "good" : "bad") << "\">" << Html(DaemonText(view))
         << "</span></p>\n";
  if (view.daemon_state != DaemonState::kUnknown) {
    output << "<p class=\"faint\">"
           << Html(std::to_string(std::max(process.starts, 1U) - 1) + " restarts, power " +
                   PowerText(process) + ", " + CardText(view) + ", " +
                   std::to_string(process.log_lines_lost) + " log lines lost, " +
                   std::to_string(process.descriptors_in_use) + " of " +
                   std::to_string(process.descriptor_limit) + " descriptors")
           << "</p>\n";
  }
  if (view.damaged_records > 0) {
    output << "<p class=\"warn\">" << view.damaged_records
           << " damaged records of the file are left out.</p>\n";
  }
  output << "<p class=\"faint\">State of " << TimeText(view.now_ms) << "; all times are local, "
         << Html(ZoneText(view.now_ms)) << "</p>\n</header>\n";
}

std::string DeviceCountText(const DeviceSet& devices) {
  return std::to_string(devices.Count()) + (devices.Count() == 1 ? " device" : " devices");
}

void PrintCauseRow(std::ostream& output, int cause, const char* tone, const std::string& devices,
                   const std::string& counts) {
  output << "<li class=\"row\"><div class=\"" << tone << "\">" << Html(HealthCauseText(cause))
         << "</div><div class=\"wide\">" << Html(devices) << "</div><div class=\"value\">" << counts
         << "</div></li>\n";
}

void PrintFailing(std::ostream& output, const HealthView& view) {
  std::map<int, DeviceSet> by_cause;
  for (const DeviceHealth& device : view.devices) {
    if (device.IsFailing()) {
      by_cause[device.record.last_cause].Add(device);
    }
  }
  if (by_cause.empty()) {
    return;
  }
  output << "<section>\n<h2>Who does not answer</h2>\n<p class=\"faint\">By how the last "
            "exchange ended.</p>\n<ul class=\"rows\">\n";
  for (const auto& [cause, devices] : by_cause) {
    PrintCauseRow(output, cause, "bad", devices.Text(true), DeviceCountText(devices));
  }
  output << "</ul>\n</section>\n";
}

/// One hour of the map: a class of the style sheet, and what reads without colour.
struct HourCell {
  const char* tone;
  std::string symbol;
};

HourCell CellOf(const ExchangeCount& hour) {
  if (hour.Total() == 0) {
    return {"", ""};
  }
  if (hour.failed == 0) {
    return {"a", "·"};
  }
  if (hour.answered == 0) {
    return {"x", "X"};
  }
  const double share = static_cast<double>(hour.failed) / static_cast<double>(hour.Total());
  const int tenths = std::clamp(static_cast<int>(std::ceil(share * 10)), 1, 9);
  return {tenths <= 3 ? "f" : tenths <= 6 ? "m" : "h", std::to_string(tenths)};
}

std::string OfText(const ExchangeCount& count) {
  return std::to_string(count.failed) + " of " + std::to_string(count.Total()) + " failed";
}

std::string HourLabel(const HealthView& view, int index) {
  return DayTimeText((view.reference_ms / kHourMs - (TAMSEL_HEALTH_HOURS - 1) + index) * kHourMs);
}

/// The row of the map in words.
std::string MapRowText(const HealthView& view, const DeviceHealth& device) {
  std::string text = "48 hours: " + OfText(device.LastHours(TAMSEL_HEALTH_HOURS));
  int bad_hours = 0;
  std::string last;
  for (int index = 0; index < TAMSEL_HEALTH_HOURS; ++index) {
    if (device.hours[static_cast<std::size_t>(index)].failed != 0) {
      ++bad_hours;
      last = HourLabel(view, index);
    }
  }
  return bad_hours == 0
             ? text
             : text + ", in " + std::to_string(bad_hours) + " of the hours, the last from " + last;
}

void PrintMapRow(std::ostream& output, const HealthView& view, const DeviceHealth& device) {
  output << "<div class=\"row\"><div><span class=\"name\">" << Html(FullName(device))
         << "</span> <small class=\"" << (device.IsFailing() ? "bad" : "") << "\">"
         << Html(StateText(device, view.now_ms)) << "</small></div>"
         << "<div class=\"hours wide\" role=\"img\" aria-label=\"" << Html(MapRowText(view, device))
         << "\">";
  for (int index = 0; index < TAMSEL_HEALTH_HOURS; ++index) {
    const ExchangeCount& hour = device.hours[static_cast<std::size_t>(index)];
    const HourCell cell = CellOf(hour);
    output << "<i class=\"" << cell.tone << "\"";
    if (hour.failed != 0) {
      output << " title=\"" << Html(HourLabel(view, index) + ", " + OfText(hour)) << "\"";
    }
    output << ">" << cell.symbol << "</i>";
  }
  output << "</div><div class=\"value\" title=\"failed in 24 hours\">"
         << Html(ShareText(device.LastDay())) << "</div></div>\n";
}

void PrintLegend(std::ostream& output) {
  constexpr struct {
    const char* tone;
    const char* symbol;
    const char* text;
  } kSymbols[] = {
      {"", "&nbsp;", "not asked"}, {"a", "·", "all answered"}, {"f", "1", "at most 10 % failed"},
      {"m", "5", "at most 50 %"},  {"h", "9", "nearly all"},   {"x", "X", "all failed"},
  };
  output << "<ul class=\"legend\">";
  for (const auto& [tone, symbol, text] : kSymbols) {
    output << "<li><span class=\"hours\"><i class=\"" << tone << "\">" << symbol << "</i></span> "
           << text << "</li>";
  }
  output << "</ul>\n";
}

using Devices = std::vector<const DeviceHealth*>;

void PrintMap(std::ostream& output, const HealthView& view, const Devices& devices) {
  output << "<h3>" << TransportText(devices.front()->record.transport)
         << " devices by hour</h3>\n<div class=\"row axis\" aria-hidden=\"true\"><div></div>"
         << "<div class=\"hours wide\">";
  for (int index = 0; index < TAMSEL_HEALTH_HOURS; index += kAxisHours) {
    std::string label = HourLabel(view, index);
    std::replace(label.begin(), label.end(), ' ', '\n');
    output << "<span>" << Html(label) << "</span>";
  }
  output << "</div><div class=\"value\">failed<br>in 24 h</div></div>\n";
  for (const DeviceHealth* device : devices) {
    PrintMapRow(output, view, *device);
  }
  PrintLegend(output);
}

void PrintTimes(std::ostream& output, const Devices& all) {
  Devices devices;
  std::uint32_t longest_us = 1;
  for (const DeviceHealth* device : all) {
    if (device->record.response_count != 0) {
      devices.push_back(device);
      longest_us = std::max(longest_us, device->record.response_most_us);
    }
  }
  if (devices.empty()) {
    return;
  }
  const auto percent = [longest_us](std::uint64_t microseconds) {
    return std::min(100 * static_cast<double>(microseconds) / longest_us, 100.0);
  };
  output << "<div class=\"times\">\n<h3>Response times</h3>\n<p class=\"faint\">Bar: shortest to "
            "longest; line: mean. Beside it: last / mean / longest.</p>\n";
  for (const DeviceHealth* device : devices) {
    const tamsel_health_device& record = device->record;
    const double least = percent(record.response_least_us);
    output << "<div class=\"row\"><div class=\"name\">" << Html(FullName(*device))
           << "</div><div class=\"bar wide\" aria-hidden=\"true\"><span style=\"left:" << least
           << "%;width:" << std::max(percent(record.response_most_us) - least, 0.0)
           << "%\"></span><b style=\"left:min(" << percent(device->MeanResponseUs())
           << "%,100% - 2px)\"></b></div><div class=\"value\">" << MsText(record.response_last_us)
           << " / " << MsText(device->MeanResponseUs()) << " / " << MsText(record.response_most_us)
           << " ms</div></div>\n";
  }
  output << "</div>\n";
}

void PrintChannelFacts(std::ostream& output, const tamsel_health_channel& channel) {
  const std::string failed = FailedRequestsText(channel);
  output << "<p>" << channel.requests << " requests, " << channel.busy_refusals
         << " refused because the channel was busy, " << FailedRequests(channel) << " failed"
         << Html(failed.empty() ? "" : ": " + failed) << "; " << channel.unanswered
         << " without a response. Longest: " << channel.longest_ms << " ms";
  if (channel.longest_at_ms != 0) {
    output << ", " << TimeText(channel.longest_at_ms);
  }
  output << ".</p>\n";
  if (channel.cycles != 0) {
    output << "<p>RS485 cycle: last " << MsText(channel.cycle_last_us) << " ms, mean "
           << MsText(channel.cycle_total_us / channel.cycles) << " ms, longest "
           << MsText(channel.cycle_most_us) << " ms.</p>\n";
  }
}

void PrintChannel(std::ostream& output, const HealthView& view, int number) {
  const auto channel = std::find_if(
      view.channels.begin(), view.channels.end(),
      [number](const auto& record) { return static_cast<int>(record.channel) == number; });
  std::map<int, Devices> by_transport;
  for (const DeviceHealth& device : view.devices) {
    if (device.record.channel == number) {
      by_transport[device.record.transport].push_back(&device);
    }
  }
  if (channel == view.channels.end() && by_transport.empty()) {
    return;
  }
  output << "<section>\n<h2>Channel " << number << "</h2>\n";
  if (channel != view.channels.end()) {
    PrintChannelFacts(output, *channel);
  }
  for (auto& [transport, devices] : by_transport) {
    std::sort(devices.begin(), devices.end(), [](const auto* left, const auto* right) {
      return left->record.address < right->record.address;
    });
    PrintMap(output, view, devices);
    PrintTimes(output, devices);
  }
  output << "</section>\n";
}

void PrintCauses(std::ostream& output, const HealthView& view) {
  struct Cause {
    std::uint64_t count = 0;
    DeviceSet devices;
  };
  std::map<int, Cause> causes;
  for (const DeviceHealth& device : view.devices) {
    for (int cause = 0; cause < TAMSEL_HEALTH_CAUSES; ++cause) {
      if (device.record.ends[cause] != 0 && !IsHealthyCause(cause)) {
        causes[cause].count += device.record.ends[cause];
        causes[cause].devices.Add(device);
      }
    }
  }
  if (causes.empty()) {
    return;
  }
  std::vector<std::pair<int, const Cause*>> sorted;
  for (const auto& [number, cause] : causes) {
    sorted.emplace_back(number, &cause);
  }
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto& left, const auto& right) {
    return left.second->count > right.second->count;
  });
  output << "<section>\n<h2>Causes of failures</h2>\n<p class=\"faint\">All since the health file "
            "was begun.</p>\n<ul class=\"rows\">\n";
  for (const auto& [number, cause] : sorted) {
    PrintCauseRow(output, number, "", cause->devices.Text(false),
                  std::to_string(cause->count) + " times, " + DeviceCountText(cause->devices));
  }
  output << "</ul>\n</section>\n";
}

void PrintDevices(std::ostream& output, const HealthView& view) {
  if (view.devices.empty()) {
    return;
  }
  output << "<section>\n<h2>Devices</h2>\n";
  {
    HtmlTable table(output, "Worst first.",
                    {{"Channel", false},
                     {"Device", false},
                     {"State", false},
                     {"Why", false},
                     {"Fails since", false},
                     {"Last answer", false},
                     {"Failed 1 h", true},
                     {"Failed 24 h", true},
                     {"Exchanges", true},
                     {"Failures", false},
                     {"Place", false}});
    for (const DeviceHealth& device : view.devices) {
      const tamsel_health_device& record = device.record;
      table.Row({std::to_string(record.channel) + " " + TransportText(record.transport),
                 {FullName(device), "name"},
                 {StateText(device, view.now_ms), ToneOf(device)},
                 device.IsFailing() || !device.is_asked ? WhyText(device) : "",
                 device.IsFailing() ? TimeText(record.failing_since_ms) : "",
                 TimeText(record.last_answer_ms),
                 ShareText(device.LastHour()),
                 ShareText(device.LastDay()),
                 std::to_string(record.exchanges),
                 FailuresText(device, TAMSEL_HEALTH_CAUSES),
                 device.place});
    }
  }
  output << "</section>\n";
}

}  // namespace

void PrintHealthPage(std::ostream& output, const HealthView& view) {
  output << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
            "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; "
            "style-src 'unsafe-inline'\">\n"
            "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
            "<title>Field health: "
         << Html(view.place) << "</title>\n<style>" << kHealthPageStyle
         << "</style>\n</head>\n<body>\n";
  PrintHeader(output, view);
  output << "<main>\n";
  PrintFailing(output, view);
  for (int channel = 1; channel <= TAMSEL_HEALTH_CHANNELS; ++channel) {
    PrintChannel(output, view, channel);
  }
  PrintCauses(output, view);
  PrintDevices(output, view);
  output << "</main>\n<footer><p>From " << Html(view.path)
         << ". The last hour counts the hour that has begun and the one before it, the last 24 "
            "hours the one that has begun and the 24 before it.</p></footer>\n</body>\n</html>\n";
}

}  // namespace tmsc::ctl
