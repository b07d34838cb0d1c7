#include "request/request_report.h"

#include <algorithm>
#include <iomanip>
#include <ostream>

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

std::string JoinNumbers(const std::vector<int>& numbers, const char* separator) {
  std::string text;
  for (const int number : numbers) {
    text += (text.empty() ? "" : separator) + std::to_string(number);
  }
  return text;
}

}  // namespace

void PrintTable(std::ostream& output, const RequestReport& report) {
  output << "channel " << report.channel << ", " << report.devices.size()
         << (report.devices.size() == 1 ? " device, " : " devices, ") << report.elapsed_ms
         << " ms\n";
  std::size_t place_width = 5;
  std::size_t status_width = 6;
  for (const DeviceReport& device : report.devices) {
    place_width = std::max(place_width, device.place.size());
    status_width = std::max(status_width, device.status.size());
  }
  const auto print_row = [&](const std::string& address, const std::string& place,
                             const std::string& status, const std::string& answer) {
    output << std::left << std::setw(8) << address << std::setw(static_cast<int>(place_width) + 2)
           << place << std::setw(static_cast<int>(status_width) + 2) << status << answer << '\n';
  };
  print_row("device", "place", "status", "answer");
  for (const DeviceReport& device : report.devices) {
    print_row(std::to_string(device.address), device.place, device.status,
              device.answer.empty() ? "-" : HexText(device.answer));
    if (!device.registers.empty()) {
      output << "        registers: " << JoinNumbers(device.registers, " ") << '\n';
    }
  }
}

// No text in a report holds a character that JSON would want escaped: they are our own words, names
// of serial codes, and places that have passed as IPv4 addresses.
void PrintJson(std::ostream& output, const RequestReport& report) {
  output << R"({"channel":)" << report.channel << R"(,"elapsed_ms":)" << report.elapsed_ms
         << R"(,"devices":[)";
  const char* separator = "";
  for (const DeviceReport& device : report.devices) {
    output << separator << R"({"device":)" << device.address << R"(,"place":")" << device.place
           << R"(","ok":)" << (device.is_good ? "true" : "false") << R"(,"status":")"
           << device.status << R"(","answer":")" << HexText(device.answer) << R"(","registers":[)"
           << JoinNumbers(device.registers, ",") << "]}";
    separator = ",";
  }
  output << "]}\n";
}

}  // namespace tmsc::ctl
