#include "health/health_json.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "shared/json_line.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

using Json = nlohmann::ordered_json;

constexpr std::int64_t kHourMs = 3600 * 1000;

Json Time(std::int64_t moment_ms) {
  return moment_ms == 0 ? Json() : Json(IsoTime(moment_ms));
}

double Ms(std::uint64_t microseconds) {
  return static_cast<double>(microseconds) / 1000;
}

Json Counts(const ExchangeCount& count) {
  return {{"answered", count.answered}, {"failed", count.failed}};
}

Json DaemonJson(const HealthView& view) {
  const tamsel_health_process& process = view.process;
  return {{"state", DaemonStateName(view.daemon_state)},
          {"version", view.version},
          {"pid", process.pid},
          {"started", Time(process.started_ms)},
          {"updated", Time(process.updated_ms)},
          {"stopped", Time(process.stopped_ms)},
          {"starts", process.starts},
          {"power", PowerText(process)},
          {"card_gone_since", Time(process.card_gone_since_ms)},
          {"log_lines_lost", process.log_lines_lost},
          {"descriptors_in_use", process.descriptors_in_use},
          {"descriptor_limit", process.descriptor_limit}};
}

Json ChannelJson(const tamsel_health_channel& channel) {
  Json statuses = Json::object();
  for (int index = 0; index < TAMSEL_HEALTH_STATUSES; ++index) {
    if (channel.statuses[index] != 0) {
      statuses[std::to_string(index - 1)] = channel.statuses[index];
    }
  }
  Json cycle;
  if (channel.cycles != 0) {
    cycle = {{"count", channel.cycles},
             {"last", Ms(channel.cycle_last_us)},
             {"least", Ms(channel.cycle_least_us)},
             {"mean", Ms(channel.cycle_total_us / channel.cycles)},
             {"most", Ms(channel.cycle_most_us)}};
  }
  return {{"channel", channel.channel},
          {"requests", channel.requests},
          {"busy_refusals", channel.busy_refusals},
          {"failed", FailedRequests(channel)},
          {"unanswered", channel.unanswered},
          {"statuses", statuses},
          {"longest_ms", channel.longest_ms},
          {"longest_at", Time(channel.longest_at_ms)},
          {"last_request", Time(channel.last_request_ms)},
          {"rs485_cycle_ms", cycle}};
}

Json HoursJson(const DeviceHealth& device, std::int64_t reference_ms) {
  Json hours = Json::array();
  std::int64_t hour_ms = (reference_ms / kHourMs - (TAMSEL_HEALTH_HOURS - 1)) * kHourMs;
  for (const ExchangeCount& hour : device.hours) {
    if (hour.Total() != 0) {
      hours.push_back(
          {{"hour", IsoTime(hour_ms)}, {"answered", hour.answered}, {"failed", hour.failed}});
    }
    hour_ms += kHourMs;
  }
  return hours;
}

Json DeviceJson(const DeviceHealth& device, std::int64_t reference_ms) {
  const tamsel_health_device& record = device.record;
  Json ends = Json::object();
  for (int cause = 0; cause < TAMSEL_HEALTH_CAUSES; ++cause) {
    if (record.ends[cause] != 0) {
      ends[HealthCauseName(cause)] = record.ends[cause];
    }
  }
  Json response;
  if (record.response_count != 0) {
    response = {{"count", record.response_count},
                {"last", Ms(record.response_last_us)},
                {"least", Ms(record.response_least_us)},
                {"mean", Ms(device.MeanResponseUs())},
                {"most", Ms(record.response_most_us)}};
  }
  return {{"channel", record.channel},
          {"transport", TransportName(record.transport)},
          {"device", record.address},
          {"name", device.name.empty() ? Json() : Json(device.name)},
          {"place", device.place},
          {"state", DeviceStateName(device.State())},
          {"ok", device.is_asked ? Json(!device.IsFailing()) : Json()},
          {"cause", HealthCauseName(record.last_cause)},
          {"cause_code", record.last_cause},
          {"detail", record.last_detail},
          {"text", HealthCauseText(record.last_cause, record.last_detail)},
          {"failures_in_a_row", record.failures_in_a_row},
          {"first", Time(record.first_ms)},
          {"last", Time(record.last_ms)},
          {"last_answer", Time(record.last_answer_ms)},
          {"failing_since", Time(record.failing_since_ms)},
          {"exchanges", record.exchanges},
          {"interval_ms", record.interval_ms == 0 ? Json() : Json(record.interval_ms)},
          {"ends", ends},
          {"response_ms", response},
          {"last_hour", Counts(device.LastHour())},
          {"last_day", Counts(device.LastDay())},
          {"hours", HoursJson(device, reference_ms)}};
}

}  // namespace

void PrintHealthJson(std::ostream& output, const HealthView& view) {
  Json channels = Json::array();
  for (const tamsel_health_channel& channel : view.channels) {
    channels.push_back(ChannelJson(channel));
  }
  Json devices = Json::array();
  for (const DeviceHealth& device : view.devices) {
    devices.push_back(DeviceJson(device, view.reference_ms));
  }
  const Json document = {{"file", view.path},
                         {"read", IsoTime(view.now_ms)},
                         {"damaged_records", view.damaged_records},
                         {"daemon", DaemonJson(view)},
                         {"channels", channels},
                         {"devices", devices}};
  PrintJsonLine(output, document);
}

}  // namespace tmsc::ctl
