#include "scan/scan_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "logger_setting/logger_setting_manager.h"
#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "scan/scan_options.h"
#include "scan/scan_report.h"
#include "shared/address_ranges.h"
#include "shared/exchange.h"
#include "shared/exit_code.h"
#include "shared/times.h"
#include "status_text.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  tamselctl scan --channel 1 --baud 19200 --line 8E1\n"
    "  tamselctl scan --channel 2 --baud 9600 --unit 1-247 --read-input 0,1 --at-once 10\n"
    "  tamselctl scan --channel 3 --gateway 192.0.2.9 --unit 100-120 --timeout 1000\n\n";

/// One scan from its first request to its report.
class Scan {
 public:
  explicit Scan(const ScanOptions& options)
      : options_(options),
        read_(ParseRead(options.reads).value_or(Read{modbus::kReadHoldingRegisters, 0, 1})),
        exchanger_(options.daemon, Purpose::kScan, options.busy_wait_ms, std::nullopt,
                   interruption_, progress_) {
    report_.channel = options.bus.channel;
    report_.wanted = options.units.size();
    report_.place = options.bus.IsRs485()
                        ? std::string(options.bus.baud->name) + " " + options.bus.line.name
                        : options.ip_address + ":" + std::to_string(options.port);
  }

  int Run() {
    Announce();
    const auto begin = std::chrono::steady_clock::now();
    AskAll();
    progress_.Clear();
    report_.elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                             std::chrono::steady_clock::now() - begin)
                             .count();
    if (report_.exit_code == kExitOk && report_.Answers() == 0) {
      report_.exit_code = kExitDeviceFailed;
    }
    if (interruption_.Signal() != 0) {
      report_.exit_code = interruption_.ExitCode();
    }
    (options_.is_json ? PrintJson : PrintTable)(std::cout, report_);
    return report_.exit_code;
  }

 private:
  // Each unit may take its time-out; a gateway's for the connect as well, and what answers is
  // listened to for late bytes.
  long long LongestMs() const {
    LoggerSettingManager settings;
    const auto units = static_cast<long long>(options_.units.size());
    const long long requests = (units + *options_.at_once - 1) / *options_.at_once;
    constexpr int of_daemon_ms = 20;
    const int timeout_ms = options_.bus.timeout_ms;
    if (!options_.bus.IsRs485()) {
      return requests *
             (2 * timeout_ms + settings.GetTcpDrainTimeout().value_or(timeout_ms) + of_daemon_ms);
    }
    constexpr int kBitsOfByte = 11;
    constexpr int kOfFrames = 13;  // bytes of both beside the values
    const int frames_ms =
        1 + (kOfFrames + 2 * read_.count) * kBitsOfByte * 1000 / std::stoi(options_.bus.baud->name);
    return requests * (settings.GetRs485StartWait() + of_daemon_ms) +
           units * (timeout_ms + options_.bus.wait_ms + frames_ms);
  }

  void Announce() const {
    std::vector<int> units = options_.units;
    std::sort(units.begin(), units.end());
    std::cerr << "tamselctl: asking " << RangesText(units) << " on channel " << options_.bus.channel
              << ", " << report_.place << ", " << *options_.at_once << " at once: about "
              << DurationText(LongestMs()) << " at most, beside waits for a busy channel\n";
  }

  void AskAll() {
    const auto step = static_cast<std::size_t>(*options_.at_once);
    bool is_of_use = true;
    for (std::size_t first = 0; is_of_use && first < options_.units.size(); first += step) {
      is_of_use = AskUnits(MakeDevices(first, std::min(first + step, options_.units.size())));
    }
    // Those that were asked once more came later.
    std::stable_sort(report_.units.begin(), report_.units.end(),
                     [](const auto& left, const auto& right) { return left.unit < right.unit; });
  }

  // One request, and another one to those whose connection had ended. False when there is no use in
  // going on.
  bool AskUnits(const std::vector<Device>& devices) {
    const auto exchange = Ask(devices);
    if (!exchange) {
      return false;
    }
    std::vector<Device> again;
    bool is_reached = options_.bus.IsRs485();
    for (const Device& device : devices) {
      const auto reply = DeviceAnswer(exchange->result.response, device.address);
      if (HasLostConnection(device, reply)) {
        again.push_back(device);
        continue;
      }
      is_reached = is_reached || !reply || (reply->status & kTCPIPUnitStatusConnectError) == 0;
      UnitReport unit = MakeReport(device, reply);
      if (unit.is_answer && devices.size() == 1) {
        unit.at_most_ms = exchange->elapsed_ms;
      }
      report_.units.push_back(std::move(unit));
    }
    return again.empty() ? is_reached || report_.Answers() > 0 : AskUnits(again);
  }

  // Nothing when the scan is over.
  std::optional<Exchange> Ask(const std::vector<Device>& devices) {
    auto exchange = exchanger_.Run(options_.bus, devices,
                                   "asked " + std::to_string(report_.units.size()) + " of " +
                                       std::to_string(report_.wanted) + ", " +
                                       std::to_string(report_.Answers()) + " answer");
    if (exchange && exchange->ExitCode() != kExitOk) {
      progress_.Clear();
      report_.exit_code = exchange->ExitCode();
      report_.error = exchange->ErrorText();
      std::cerr << "tamselctl: channel " << options_.bus.channel << ": " << report_.error << '\n';
      return std::nullopt;
    }
    return exchange;
  }

  // The daemon keeps the connection behind an answer, and notices that the gateway has closed it
  // meanwhile only when it is used again. Behind a failure it connects afresh.
  bool HasLostConnection(const Device& device, const std::optional<DeviceReply>& reply) {
    const int status = reply ? reply->status : 0;
    const bool was_fresh = std::exchange(is_connection_fresh_[device.address], status != 0);
    return !options_.bus.IsRs485() && !was_fresh &&
           (status & kTCPIPUnitStatusSendReceiveError) != 0;
  }

  // On RS485 an address that the daemon knows keeps it; all else goes through its last addresses,
  // where real devices stand least often.
  std::vector<Device> MakeDevices(std::size_t first, std::size_t end) const {
    std::vector<Device> devices(end - first);
    bool is_taken[kMaxDeviceCountAtChannel + 1] = {};
    for (std::size_t index = 0; index < devices.size(); ++index) {
      Device& device = devices[index];
      device.unit = options_.units[first + index];
      device.ip_address = options_.ip_address;
      device.port = options_.port;
      device.frame = MakeFrame(options_.bus, static_cast<int>(first + index) + 1, device.unit,
                               modbus::ReadRegistersPdu(read_.function, read_.start, read_.count));
      if (options_.bus.IsRs485() && device.unit <= kMaxDeviceCountAtChannel) {
        device.address = device.unit;
        is_taken[device.address] = true;
      }
    }
    int free_address = kMaxDeviceCountAtChannel;
    for (Device& device : devices) {
      while (device.address == 0) {
        device.address = is_taken[free_address] ? 0 : free_address;
        --free_address;
      }
    }
    return devices;
  }

  std::string StatusText(int status) const {
    if (status == 0 || (!options_.bus.IsRs485() && status == kTCPIPUnitStatusSendReceiveError)) {
      return "no answer";
    }
    const byte device_status = static_cast<byte>(status);
    return options_.bus.IsRs485() ? Rs485DeviceStatusText(device_status)
                                  : TcpDeviceStatusText(device_status);
  }

  UnitReport MakeReport(const Device& device, const std::optional<DeviceReply>& reply) const {
    UnitReport unit;
    unit.unit = device.unit;
    if (!reply || reply->status != 0 || reply->frame.empty()) {
      unit.status = StatusText(reply ? reply->status : 0);
      return unit;
    }
    const modbus::AnswerCheck answer = options_.bus.IsRs485()
                                           ? modbus::CheckRtuAnswer(device.frame, reply->frame)
                                           : modbus::CheckTcpAnswer(device.frame, reply->frame);
    unit.exception = answer.exception;
    unit.is_answer =
        answer.is_good || (answer.exception != 0 && !modbus::IsOfGateway(answer.exception));
    unit.status = answer.is_good ? "answered" : answer.text;
    unit.registers = answer.registers;
    unit.registers.insert(unit.registers.end(), answer.bits.begin(), answer.bits.end());
    return unit;
  }

  const ScanOptions& options_;
  const Read read_;
  const Interruption interruption_;
  Progress progress_;
  Exchanger exchanger_;
  ScanReport report_;
  bool is_connection_fresh_[kMaxDeviceCountAtChannel + 1] = {};  // by address; over TCP/IP
};

}  // namespace

void AddScanCommand(CLI::App& app, int& exit_code) {
  const auto options = std::make_shared<ScanOptions>();
  CLI::App& command =
      *app.add_subcommand("scan", "Find out which addresses of a bus or units of a gateway answer");
  command.footer(std::string(kExamples) + kExitCodeHelp);
  AddScanOptions(command, *options);
  command.callback([options, &exit_code] {
    CompleteScanOptions(*options);
    exit_code = Scan(*options).Run();
  });
}

}  // namespace tmsc::ctl
