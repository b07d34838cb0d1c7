#include "scan/scan_report.h"

#include <algorithm>
#include <map>
#include <nlohmann/json.hpp>
#include <ostream>

#include "shared/address_ranges.h"
#include "shared/exit_code.h"
#include "shared/json_line.h"
#include "shared/table.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

std::string TimeOf(const UnitReport& unit) {
  return unit.at_most_ms ? "at most " + std::to_string(*unit.at_most_ms) + " ms" : "-";
}

std::string Content(const UnitReport& unit) {
  std::string text;
  for (const int value : unit.registers) {
    text += (text.empty() ? "" : " ") + std::to_string(value);
  }
  return text;
}

}  // namespace

std::size_t ScanReport::Answers() const {
  return static_cast<std::size_t>(
      std::count_if(units.begin(), units.end(), [](const auto& unit) { return unit.is_answer; }));
}

void PrintTable(std::ostream& output, const ScanReport& report) {
  Table table({">unit", ">time", "answer", "value"});
  std::map<std::string, std::vector<int>> silent;
  for (const UnitReport& unit : report.units) {
    if (unit.is_answer) {
      table.Add({std::to_string(unit.unit),
                 TimeOf(unit),
                 {unit.status, unit.exception == 0 ? Tone::kGood : Tone::kWarning},
                 Content(unit)});
    } else {
      silent[unit.status].push_back(unit.unit);
    }
  }
  if (!table.IsEmpty()) {
    table.Print(output);
  }
  output << report.Answers() << " of " << report.units.size() << " answer, channel "
         << report.channel << ", " << report.place << ", " << DurationText(report.elapsed_ms);
  if (report.units.size() < report.wanted) {
    output << "; " << report.wanted - report.units.size() << " were not asked";
  }
  output << '\n';
  for (auto& [status, units] : silent) {
    std::sort(units.begin(), units.end());
    output << status << ": " << RangesText(units) << '\n';
  }
}

void PrintJson(std::ostream& output, const ScanReport& report) {
  nlohmann::ordered_json json;
  json["channel"] = report.channel;
  json["place"] = report.place;
  json["complete"] = report.units.size() == report.wanted;
  json["asked"] = report.units.size();
  json["answers"] = report.Answers();
  json["elapsed_ms"] = report.elapsed_ms;
  json["ok"] = report.exit_code == kExitOk;
  json["exit"] = report.exit_code;
  if (!report.error.empty()) {
    json["error"] = report.error;
  }
  json["units"] = nlohmann::ordered_json::array();
  for (const UnitReport& unit : report.units) {
    nlohmann::ordered_json item{
        {"unit_id", unit.unit}, {"answers", unit.is_answer}, {"status", unit.status}};
    if (unit.exception != 0) {
      item["exception"] = unit.exception;
    }
    if (unit.at_most_ms) {
      item["at_most_ms"] = *unit.at_most_ms;
    }
    if (unit.is_answer) {
      item["registers"] = unit.registers;
    }
    json["units"].push_back(std::move(item));
  }
  PrintJsonLine(output, json);
}

}  // namespace tmsc::ctl
