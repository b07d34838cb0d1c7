#include "request/request_report.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include "health_reader.h"
#include "shared/exit_code.h"
#include "shared/json_line.h"
#include "shared/table.h"
#include "shared/times.h"

namespace tmsc::ctl {
namespace {

std::string HexText(const std::vector<byte>& bytes) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  for (const byte value : bytes) {
    text += kDigits[value >> 4];
    text += kDigits[value & 0xF];
  }
  return text;
}

std::string TimeOf(const DeviceReport& device) {
  if (!device.end) {
    return "-";
  }
  return device.end->response_ms ? ResponseText(*device.end->response_ms)
         : device.end->took_ms   ? std::to_string(*device.end->took_ms) + " ms"
                                 : "-";
}

// What the answer carries, each value behind the number of its first register or bit, as the line
// below its device.
std::string ContentText(const DeviceReport& device) {
  std::vector<std::string> texts;
  for (const auto& value : device.values) {
    texts.push_back(device.is_bits ? value.get<bool>() ? "1" : "0" : ValueText(value));
  }
  std::string text = device.is_bits ? "bits:" : "values:";
  if (texts.empty()) {
    std::transform(device.registers.begin(), device.registers.end(), std::back_inserter(texts),
                   [](int value) { return std::to_string(value); });
    text = "registers:";
  }
  const std::size_t of_each =
      device.is_bits ? 1 : device.registers.size() / std::max<std::size_t>(texts.size(), 1);
  std::size_t number = static_cast<std::size_t>(device.start);
  for (const std::string& value : texts) {
    text += " " + std::to_string(number) + "=" + value;
    number += of_each;
  }
  return texts.empty() ? "" : text;
}

// Says nothing of a request that came to its devices.
void PrintError(const RequestReport& report) {
  if (!report.error.empty()) {
    std::cerr << "tamselctl: channel " << report.bus.channel << ": " << report.error
              << (report.exit_code == kExitBusy ? "; --busy-wait 5000 tries again for 5 s\n"
                                                : "\n");
  }
}

void AddEnd(nlohmann::ordered_json& json, const DeviceEnd& end) {
  json["cause"] = HealthCauseName(end.cause);
  json["cause_code"] = end.cause;
  json["cause_detail"] = end.detail;
  if (end.response_ms) {
    json["response_ms"] = *end.response_ms;
  }
  if (end.took_ms) {
    json["took_ms"] = *end.took_ms;
  }
}

nlohmann::ordered_json JsonOf(const DeviceReport& device) {
  nlohmann::ordered_json json;
  json["device"] = device.address;
  json["unit_id"] = device.unit_id;
  if (!device.name.empty()) {
    json["name"] = device.name;
    json["register"] = device.register_name;
    json["unit"] = device.unit;
  }
  json["place"] = device.place;
  json["ok"] = device.is_good;
  json["status"] = device.status;
  json["code"] = device.code;
  if (device.exception != 0) {
    json["exception"] = device.exception;
  }
  if (device.end) {
    AddEnd(json, *device.end);
  }
  json["answer"] = HexText(device.answer);
  if (!device.registers.empty() || device.is_bits) {
    json["start"] = device.start;
  }
  json["registers"] = device.registers;
  if (!device.values.empty()) {
    json[device.is_bits ? "bits" : "values"] = device.values;
  }
  return json;
}

}  // namespace

void PrintTable(std::ostream& output, const RequestReport& report) {
  if (!report.error.empty()) {
    PrintError(report);
    return;
  }
  output << "channel " << report.bus.channel << ", " << report.devices.size()
         << (report.devices.size() == 1 ? " device, " : " devices, ") << report.elapsed_ms
         << " ms\n";
  const bool has_time = std::any_of(report.devices.begin(), report.devices.end(),
                                    [](const DeviceReport& device) { return device.end; });
  std::vector<std::string> headings{"device", "place", "status"};
  if (has_time) {
    headings.emplace_back(">time");
  }
  headings.emplace_back("answer");
  Table table(headings);
  for (const DeviceReport& device : report.devices) {
    std::vector<Table::Cell> row{std::to_string(device.address),
                                 device.place,
                                 {device.status, device.is_good ? Tone::kGood : Tone::kBad}};
    if (has_time) {
      row.emplace_back(TimeOf(device));
    }
    row.emplace_back(device.answer.empty() ? "-" : HexText(device.answer));
    table.Add(row);
    if (const std::string content = ContentText(device); !content.empty()) {
      table.AddLine("        " + content);
    }
  }
  table.Print(output);
}

void PrintNamed(std::ostream& output, const RequestReport& report) {
  PrintError(report);
  const bool has_colour = HasColour(output);
  for (const DeviceReport& device : report.devices) {
    output << device.label << ": ";
    if (!device.is_good) {
      output << Coloured(device.status, Tone::kBad, has_colour);
      const std::string time = TimeOf(device);
      output << (time == "-" ? "" : " (" + time + ")");
    }
    for (const auto& value : device.values) {
      output << (device.is_bits ? value.get<bool>() ? "on" : "off" : ValueText(value));
    }
    output << (device.is_good && !device.unit.empty() ? " " + device.unit : "") << '\n';
  }
}

void PrintJson(std::ostream& output, const RequestReport& report) {
  nlohmann::ordered_json json;
  json["channel"] = report.bus.channel;
  json["elapsed_ms"] = report.elapsed_ms;
  json["time"] = IsoTime(report.begin_ms);
  json["ok"] = report.exit_code == 0;
  json["exit"] = report.exit_code;
  json["outcome"] = report.outcome;
  json["status"] = report.outcome == "answered" ? nlohmann::ordered_json(report.status) : nullptr;
  if (!report.error.empty()) {
    json["error"] = report.error;
  }
  json["devices"] = nlohmann::ordered_json::array();
  for (const DeviceReport& device : report.devices) {
    json["devices"].push_back(JsonOf(device));
  }
  PrintJsonLine(output, json);
}

}  // namespace tmsc::ctl
