#include "health/health_metrics.h"

#include <cmath>
#include <cstdio>
#include <ostream>

namespace tmsc::ctl {
namespace {

using Labels = std::vector<std::pair<std::string, std::string>>;

std::string Escaped(const std::string& text) {
  std::string result;
  for (const char character : text) {
    if (character == '\\' || character == '"') {
      result += '\\';
    }
    result += character;
  }
  return result;
}

std::string NumberText(double value) {
  char text[40];
  // Counters stay integers; times keep their microseconds.
  std::snprintf(text, sizeof(text), value == std::floor(value) ? "%.0f" : "%.6f", value);
  return text;
}

/// Prints families of metrics, each with its help and type in front.
class MetricWriter {
 public:
  explicit MetricWriter(std::ostream& output) : output_(output) {}

  /// Begins the family that the samples from now on belong to.
  void Begin(const std::string& name, const char* type, const char* help) {
    name_ = "tamsel_" + name;
    output_ << "# HELP " << name_ << " " << help << "\n# TYPE " << name_ << " " << type << '\n';
  }
  void Sample(const Labels& labels, double value, const char* suffix = "") {
    output_ << name_ << suffix;
    const char* separator = "{";
    for (const auto& [label, text] : labels) {
      output_ << separator << label << "=\"" << Escaped(text) << '"';
      separator = ",";
    }
    output_ << (labels.empty() ? " " : "} ") << NumberText(value) << '\n';
  }

 private:
  std::ostream& output_;
  std::string name_;
};

double Seconds(std::int64_t milliseconds) {
  return static_cast<double>(milliseconds) / 1e3;
}

double SecondsOfUs(std::uint64_t microseconds) {
  return static_cast<double>(microseconds) / 1e6;
}

void PrintDaemon(MetricWriter& metrics, const HealthView& view) {
  const tamsel_health_process& process = view.process;
  metrics.Begin("daemon_running", "gauge", "Whether the daemon renews its health file.");
  metrics.Sample({}, view.daemon_state == DaemonState::kRunning ? 1 : 0);
  metrics.Begin("daemon_build_info", "gauge", "Version of the daemon.");
  metrics.Sample({{"version", view.version}}, 1);
  metrics.Begin("daemon_start_time_seconds", "gauge", "Start of the daemon, since 1970 UTC.");
  metrics.Sample({}, Seconds(process.started_ms));
  metrics.Begin("daemon_last_seen_timestamp_seconds", "gauge",
                "Last sign of life of the daemon, since 1970 UTC.");
  metrics.Sample({}, Seconds(process.updated_ms));
  metrics.Begin("daemon_starts_total", "counter", "Starts of the daemon.");
  metrics.Sample({}, process.starts);
  metrics.Begin("log_lines_lost_total", "counter", "Log lines dropped by this process.");
  metrics.Sample({}, static_cast<double>(process.log_lines_lost));
  metrics.Begin("card_present", "gauge", "Whether log lines reach the card.");
  metrics.Sample({}, process.card_gone_since_ms == 0 ? 1 : 0);
  metrics.Begin("power_on", "gauge", "0 from the notice of a power outage to that of its end.");
  metrics.Sample({}, process.power == TAMSEL_POWER_ON ? 1 : 0);
  metrics.Begin("open_descriptors", "gauge", "File descriptors that the daemon uses.");
  metrics.Sample({}, process.descriptors_in_use);
  metrics.Begin("max_descriptors", "gauge", "File descriptors that the daemon may use.");
  metrics.Sample({}, process.descriptor_limit);
}

/// One family with one sample for each channel.
template <typename Value>
void PrintOfChannels(MetricWriter& metrics, const HealthView& view, const char* name,
                     const char* type, const char* help, const Value& value) {
  metrics.Begin(name, type, help);
  for (const tamsel_health_channel& channel : view.channels) {
    metrics.Sample({{"channel", std::to_string(channel.channel)}}, value(channel));
  }
}

void PrintChannels(MetricWriter& metrics, const HealthView& view) {
  metrics.Begin("requests_total", "counter", "Requests by their status; 0 is success.");
  for (const tamsel_health_channel& channel : view.channels) {
    for (int index = 0; index < TAMSEL_HEALTH_STATUSES; ++index) {
      if (channel.statuses[index] != 0) {
        metrics.Sample(
            {{"channel", std::to_string(channel.channel)}, {"status", std::to_string(index - 1)}},
            channel.statuses[index]);
      }
    }
  }
  PrintOfChannels(metrics, view, "busy_refusals_total", "counter",
                  "Requests refused because the channel was busy.",
                  [](const auto& channel) { return channel.busy_refusals; });
  PrintOfChannels(metrics, view, "requests_unanswered_total", "counter",
                  "Requests whose connection was closed without a response.",
                  [](const auto& channel) { return channel.unanswered; });
  PrintOfChannels(metrics, view, "request_longest_seconds", "gauge",
                  "Longest request since the health file was begun.",
                  [](const auto& channel) { return Seconds(channel.longest_ms); });
  metrics.Begin("rs485_cycle_seconds", "summary", "Cycles of the RS485 bus.");
  for (const tamsel_health_channel& channel : view.channels) {
    if (channel.cycles != 0) {
      const Labels labels = {{"channel", std::to_string(channel.channel)}};
      metrics.Sample(labels, SecondsOfUs(channel.cycle_total_us), "_sum");
      metrics.Sample(labels, channel.cycles, "_count");
    }
  }
}

Labels DeviceLabels(const DeviceHealth& device) {
  return {{"channel", std::to_string(device.record.channel)},
          {"transport", TransportName(device.record.transport)},
          {"address", std::to_string(device.record.address)}};
}

/// One family with one sample for each device whose `has_value` holds.
template <typename HasValue, typename Value>
void PrintOfDevices(MetricWriter& metrics, const HealthView& view, const char* name,
                    const char* help, const HasValue& has_value, const Value& value) {
  metrics.Begin(name, "gauge", help);
  for (const DeviceHealth& device : view.devices) {
    if (has_value(device)) {
      metrics.Sample(DeviceLabels(device), value(device));
    }
  }
}

void PrintDevices(MetricWriter& metrics, const HealthView& view) {
  const auto always = [](const DeviceHealth&) { return true; };
  metrics.Begin("device_info", "gauge", "Name and place of a device.");
  for (const DeviceHealth& device : view.devices) {
    Labels labels = DeviceLabels(device);
    labels.insert(labels.end(), {{"name", device.name}, {"place", device.place}});
    metrics.Sample(labels, 1);
  }
  PrintOfDevices(metrics, view, "device_asked", "Whether the device is still asked.", always,
                 [](const auto& device) { return device.is_asked ? 1 : 0; });
  PrintOfDevices(
      metrics, view, "device_answering", "Whether the last exchange was answered.",
      [](const auto& device) { return device.is_asked; },
      [](const auto& device) { return device.IsFailing() ? 0 : 1; });
  PrintOfDevices(metrics, view, "device_last_exchange_timestamp_seconds",
                 "Last exchange, since 1970 UTC.", always,
                 [](const auto& device) { return Seconds(device.record.last_ms); });
  PrintOfDevices(
      metrics, view, "device_last_answer_timestamp_seconds", "Last answer, since 1970 UTC.",
      [](const auto& device) { return device.record.last_answer_ms != 0; },
      [](const auto& device) { return Seconds(device.record.last_answer_ms); });
  PrintOfDevices(
      metrics, view, "device_failing_since_timestamp_seconds",
      "First failure since the last answer, since 1970 UTC.",
      [](const auto& device) { return device.IsFailing() && device.record.failing_since_ms != 0; },
      [](const auto& device) { return Seconds(device.record.failing_since_ms); });
  metrics.Begin("device_failing_info", "gauge", "Why a device fails: its last failure's cause.");
  for (const DeviceHealth& device : view.devices) {
    if (device.IsFailing()) {
      Labels labels = DeviceLabels(device);
      labels.emplace_back("cause", HealthCauseName(device.record.last_cause));
      metrics.Sample(labels, 1);
    }
  }
}

void PrintExchanges(MetricWriter& metrics, const HealthView& view) {
  const auto is_timed = [](const DeviceHealth& device) {
    return device.record.response_count != 0;
  };
  PrintOfDevices(metrics, view, "device_last_response_seconds", "Time of the last response.",
                 is_timed,
                 [](const auto& device) { return SecondsOfUs(device.record.response_last_us); });
  PrintOfDevices(metrics, view, "device_slowest_response_seconds",
                 "Longest time of a response since the health file was begun.", is_timed,
                 [](const auto& device) { return SecondsOfUs(device.record.response_most_us); });
  metrics.Begin("device_response_seconds", "summary",
                "From the last byte sent to the last byte received.");
  for (const DeviceHealth& device : view.devices) {
    if (is_timed(device)) {
      metrics.Sample(DeviceLabels(device), SecondsOfUs(device.record.response_total_us), "_sum");
      metrics.Sample(DeviceLabels(device), device.record.response_count, "_count");
    }
  }
  metrics.Begin("exchanges_total", "counter", "Exchanges by how they ended.");
  for (const DeviceHealth& device : view.devices) {
    for (int cause = 0; cause < TAMSEL_HEALTH_CAUSES; ++cause) {
      if (device.record.ends[cause] != 0 || cause == TAMSEL_CAUSE_ANSWERED) {
        Labels labels = DeviceLabels(device);
        labels.emplace_back("cause", HealthCauseName(cause));
        metrics.Sample(labels, device.record.ends[cause]);
      }
    }
  }
}

}  // namespace

void PrintHealthMetrics(std::ostream& output, const HealthView& view) {
  MetricWriter metrics(output);
  PrintDaemon(metrics, view);
  PrintChannels(metrics, view);
  PrintDevices(metrics, view);
  PrintExchanges(metrics, view);
  output << "# EOF\n";
}

}  // namespace tmsc::ctl
