#include <algorithm>
#include <nlohmann/json.hpp>
#include <ostream>

#include "log/log_summary.h"
#include "shared/json_line.h"
#include "shared/table.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

using Json = nlohmann::ordered_json;

bool IsWanted(const std::vector<int>& wanted, int number) {
  return wanted.empty() || std::find(wanted.begin(), wanted.end(), number) != wanted.end();
}

std::string NumberOrUnknown(int number) {
  return number == 0 ? "?" : std::to_string(number);
}

Json NumberOrNull(int number) {
  return number == 0 ? Json() : Json(number);
}

/// "no answer in time 12, line error 1", most first.
std::string CountsText(const EndCounts& counts) {
  std::vector<std::pair<std::string, std::uint64_t>> sorted(counts.begin(), counts.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& one, const auto& other) { return one.second > other.second; });
  std::string text;
  for (const auto& [words, count] : sorted) {
    text += (text.empty() ? "" : ", ") + words + " " + std::to_string(count);
  }
  return text;
}

Table::Cell FailedCell(std::uint64_t failed) {
  return {std::to_string(failed), failed > 0 ? Tone::kBad : Tone::kPlain};
}

}  // namespace

void LogSummary::PrintText(std::ostream& output, const SummaryScope& scope) const {
  output << lines_ << " lines from " << TimeText(first_ms_) << " to " << TimeText(last_ms_)
         << (damaged_ > 0 ? ", " + std::to_string(damaged_) + " cut or damaged ones left out" : "")
         << "\nstarts " << starts_ << ", of them without a stop before " << starts_without_stop_
         << "; power outages " << outages_ << ", recoveries " << recoveries_ << "; card gone "
         << card_gone_ << ", back " << card_back_ << "; log lines lost " << lines_lost_ << '\n';
  if (!service_.empty()) {
    output << "trouble of the daemon: " << CountsText(service_) << '\n';
  }
  if (!clients_refused_.empty()) {
    output << "clients refused: " << CountsText(clients_refused_) << '\n';
  }
  Table channels({"channel", ">requests", ">RS485", ">TCP/IP", ">busy", ">cut off", ">longest",
                  ">failed", "failures of whole requests"});
  for (const auto& [channel, counts] : channels_) {
    if (IsWanted(scope.channels, channel)) {
      channels.Add({NumberOrUnknown(channel), std::to_string(counts.requests),
                    std::to_string(counts.rs485), std::to_string(counts.tcpip),
                    std::to_string(counts.busy), std::to_string(counts.unfinished),
                    DurationText(counts.longest_ms), FailedCell(counts.failed),
                    CountsText(counts.failures)});
    }
  }
  if (!channels.IsEmpty()) {
    output << '\n';
    channels.Print(output);
  }
  Table devices({"channel", "device", "place", ">exchanges", ">answered", ">failed", "last failed",
                 "failures"});
  for (const auto& [key, counts] : devices_) {
    const auto& [channel, is_tcp, device, place, candidates] = key;
    if (IsWanted(scope.channels, channel) && IsWanted(scope.devices, device)) {
      devices.Add({NumberOrUnknown(channel),
                   candidates.empty() ? NumberOrUnknown(device) : "one of " + candidates,
                   is_tcp ? place : "RS485", std::to_string(counts.exchanges),
                   std::to_string(counts.exchanges - counts.failed), FailedCell(counts.failed),
                   counts.failed == 0 ? "" : TimeText(counts.last_failed_ms),
                   CountsText(counts.failures)});
    }
  }
  if (!devices.IsEmpty()) {
    output << '\n';
    devices.Print(output);
  }
  for (const std::string& note : Notes()) {
    output << '\n' << note << '\n';
  }
}

void LogSummary::PrintJson(std::ostream& output, const SummaryScope& scope) const {
  Json json = {{"lines", lines_},
               {"damaged", damaged_},
               {"from", IsoTime(first_ms_)},
               {"to", IsoTime(last_ms_)},
               {"starts", starts_},
               {"starts_without_stop", starts_without_stop_},
               {"outages", outages_},
               {"recoveries", recoveries_},
               {"card_gone", card_gone_},
               {"card_back", card_back_},
               {"lines_lost", lines_lost_},
               {"trouble", Json(service_)},
               {"clients_refused", Json(clients_refused_)},
               {"channels", Json::array()},
               {"devices", Json::array()},
               {"exchanges_of_unknown_device", exchanges_untold_},
               {"exchanges_of_inferred_channel", exchanges_inferred_},
               {"exchanges_without_end", tracker_.Unfinished()},
               {"notes", Notes()}};
  for (const auto& [channel, counts] : channels_) {
    if (IsWanted(scope.channels, channel)) {
      json["channels"].push_back({{"channel", NumberOrNull(channel)},
                                  {"requests", counts.requests},
                                  {"rs485", counts.rs485},
                                  {"tcpip", counts.tcpip},
                                  {"busy", counts.busy},
                                  {"cut_off", counts.unfinished},
                                  {"longest_ms", counts.longest_ms},
                                  {"failed", counts.failed},
                                  {"failures", Json(counts.failures)}});
    }
  }
  for (const auto& [key, counts] : devices_) {
    const auto& [channel, is_tcp, device, place, candidates] = key;
    if (IsWanted(scope.channels, channel) && IsWanted(scope.devices, device)) {
      json["devices"].push_back({{"channel", NumberOrNull(channel)},
                                 {"device", NumberOrNull(device)},
                                 {"one_of", candidates},
                                 {"transport", is_tcp ? "tcpip" : "rs485"},
                                 {"place", place},
                                 {"exchanges", counts.exchanges},
                                 {"failed", counts.failed},
                                 {"last_failed", IsoTime(counts.last_failed_ms)},
                                 {"failures", Json(counts.failures)}});
    }
  }
  PrintJsonLine(output, json);
}

}  // namespace tmsc::ctl
