#include "request_command.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <iostream>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "arguments.h"
#include "exit_code.h"
#include "modbus_tcp.h"
#include "request_report.h"
#include "status_text.h"
#include "tamsel_client.h"
#include "utility/deadline.h"

namespace tmsc {
namespace {

constexpr int kBusyRetryMs = 50;

struct Options {
  int channel = 0;
  std::vector<std::string> devices;
  std::vector<std::string> frames;
  std::string read_holding;
  std::string read_input;
  std::string write_registers;
  std::optional<int> unit;
  int timeout_ms = 1000;
  std::optional<int> deadline_ms;
  std::string socket_path = kDefaultSocketPath;
  int busy_wait_ms = 0;
  std::string format = "table";
};

// A device of the request with the frame for it.
struct Device {
  TcpDevicePlace place;
  std::vector<byte> frame;
};

[[noreturn]] void ThrowUsage(const std::string& option, const std::string& message) {
  throw CLI::ValidationError(option, message);
}

// CLI11 would take a leading zero for octal; here a number is decimal, or hexadecimal after 0x.
template <typename Target>
CLI::Option* AddNumber(CLI::App& command, const std::string& name, Target& target, int least,
                       int most, const std::string& description) {
  return command
      .add_option_function<std::string>(
          name,
          [name, &target, least, most](const std::string& text) {
            const auto number = ParseNumber(text, least, most);
            if (!number) {
              ThrowUsage(name, text + " is not a number of " + std::to_string(least) + " to " +
                                   std::to_string(most));
            }
            target = *number;
          },
          description)
      ->type_name("NUMBER");
}

std::vector<byte> ReadPdu(const std::string& option, byte function, const std::string& text) {
  const auto numbers = ParseNumberList(text);
  if (!numbers || numbers->size() != 2) {
    ThrowUsage(option, text + " is not START,COUNT");
  }
  const int start = numbers->at(0);
  const int count = numbers->at(1);
  if (count < 1 || count > kMaxReadRegisters || start + count > 0x10000) {
    ThrowUsage(option, "1 to " + std::to_string(kMaxReadRegisters) +
                           " registers, none above 65535, can be read");
  }
  return ReadRegistersPdu(function, start, count);
}

std::vector<byte> WritePdu(const std::string& option, const std::string& text) {
  auto numbers = ParseNumberList(text);
  if (!numbers) {
    ThrowUsage(option, text + " is not START,VALUE[,VALUE...]");
  }
  const int start = numbers->front();
  numbers->erase(numbers->begin());
  const int count = static_cast<int>(numbers->size());
  if (count > kMaxWriteRegisters || start + count > 0x10000) {
    ThrowUsage(option, "1 to " + std::to_string(kMaxWriteRegisters) +
                           " registers, none above 65535, can be written");
  }
  return WriteRegistersPdu(start, *numbers);
}

std::vector<Device> ParseDevices(const Options& options) {
  std::vector<Device> devices;
  for (const std::string& text : options.devices) {
    const auto place = ParseTcpDevice(text);
    if (!place) {
      ThrowUsage("--device", text + " is not ADDRESS=IP:PORT with an address of 1 to " +
                                 std::to_string(kMaxDeviceCountAtChannel));
    }
    devices.push_back({*place, {}});
  }
  return devices;
}

void SetRawFrame(std::vector<Device>& devices, const std::string& text) {
  const auto given = ParseAddressedFrame(text);
  if (!given) {
    ThrowUsage("--frame", text + " is not HEX or ADDRESS:HEX");
  }
  bool is_used = false;
  for (Device& device : devices) {
    if (given->address.value_or(device.place.address) == device.place.address) {
      if (!device.frame.empty()) {
        ThrowUsage("--frame", "a second frame for device " + std::to_string(device.place.address));
      }
      device.frame = given->frame;
      is_used = true;
    }
  }
  if (!is_used) {
    ThrowUsage("--frame", "no device " + std::to_string(given->address.value_or(0)));
  }
}

void SetFrames(std::vector<Device>& devices, const Options& options) {
  if (!options.frames.empty()) {
    if (options.unit) {
      ThrowUsage("--unit", "the bytes of --frame are sent as they are");
    }
    for (const std::string& text : options.frames) {
      SetRawFrame(devices, text);
    }
    return;
  }
  std::vector<byte> pdu;
  if (!options.read_holding.empty()) {
    pdu = ReadPdu("--read-holding", kModbusReadHoldingRegisters, options.read_holding);
  } else if (!options.read_input.empty()) {
    pdu = ReadPdu("--read-input", kModbusReadInputRegisters, options.read_input);
  } else {
    pdu = WritePdu("--write-registers", options.write_registers);
  }
  int transaction = 0;
  for (Device& device : devices) {
    device.frame = ModbusTcpFrame(++transaction, options.unit.value_or(device.place.address), pdu);
  }
}

TcpIpRequest BuildRequest(const std::vector<Device>& devices, const Options& options) {
  TcpIpRequest request = MakeTcpIpRequest(options.channel);
  for (const Device& device : devices) {
    if (device.frame.empty()) {
      ThrowUsage("--frame", "no frame for device " + std::to_string(device.place.address));
    }
    const BuildError error = AddTcpIpDevice(request, device.place.address, device.place.ip_address,
                                            device.place.port, options.timeout_ms, device.frame);
    if (error) {
      ThrowUsage("device " + std::to_string(device.place.address), *error);
    }
  }
  return request;
}

// Devices are served side by side: each may take its time-out for the connect, the send, some
// receives and the wait for late bytes, which the daemon itself bounds by 5 s.
int DeadlineMs(const Options& options) {
  return options.deadline_ms.value_or(6 * options.timeout_ms + 10000);
}

// Repeats the exchange while the channel is busy and the time to wait for it lasts.
template <typename Request>
ExchangeResult ExchangeUnlessBusy(const Request& request, const Options& options,
                                  RequestReport& report) {
  const TamselClient client(options.socket_path);
  const Deadline busy_deadline{std::chrono::milliseconds(options.busy_wait_ms)};
  while (true) {
    const auto begin = Deadline::Clock::now();
    ExchangeResult result = client.Exchange(request, DeadlineMs(options));
    const auto elapsed = Deadline::Clock::now() - begin;
    report.elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count();
    const bool is_busy =
        result.outcome == Outcome::kAnswered &&
        result.response.receive_data.status == kDeviceCommunicationChannelBusyError;
    if (!is_busy || busy_deadline.HasPassed()) {
      return result;
    }
    std::this_thread::sleep_for(
        std::chrono::milliseconds(std::min(kBusyRetryMs, busy_deadline.RemainingMs())));
  }
}

DeviceReport ReportDevice(const Device& device, const ResponseReceiveData& response) {
  DeviceReport report;
  report.address = device.place.address;
  report.place = device.place.ip_address + ":" + std::to_string(device.place.port);
  const auto reply = DeviceAnswer(response, device.place.address);
  if (!reply) {
    report.status = "broken slot in the response";
  } else if (reply->status != 0) {
    report.status = TcpDeviceStatusText(reply->status);
  } else if (reply->frame.empty()) {
    report.status = "no answer";
  } else {
    ModbusAnswer answer = CheckModbusAnswer(device.frame, reply->frame);
    report.is_good = answer.is_good;
    report.status = answer.is_good ? TcpDeviceStatusText(reply->status) : answer.text;
    report.answer = reply->frame;
    report.registers = std::move(answer.registers);
  }
  return report;
}

// The exit status of a request that came to no device answers; kExitOk for any other.
int ExitCodeOfRequest(const ExchangeResult& result) {
  switch (result.outcome) {
    case Outcome::kAnswered:
      break;
    case Outcome::kClosedWithoutAnswer:
      return kExitRequestFailed;
    default:
      return kExitNoDaemon;
  }
  switch (result.response.receive_data.status) {
    case kDeviceCommunicationStatusNoError:
      return kExitOk;
    case kDeviceCommunicationChannelBusyError:
      return kExitBusy;
    default:
      return kExitRequestFailed;
  }
}

int RunRequest(const Options& options) {
  std::vector<Device> devices = ParseDevices(options);
  SetFrames(devices, options);
  const TcpIpRequest request = BuildRequest(devices, options);

  RequestReport report;
  report.channel = options.channel;
  const ExchangeResult result = ExchangeUnlessBusy(request, options, report);
  if (const int exit_code = ExitCodeOfRequest(result); exit_code != kExitOk) {
    std::cerr << "tamselctl: channel " << options.channel << ": "
              << (result.outcome == Outcome::kAnswered
                      ? StatusText(result.response.receive_data.status)
                      : result.text)
              << '\n';
    return exit_code;
  }
  bool is_good = true;
  for (const Device& device : devices) {
    report.devices.push_back(ReportDevice(device, result.response));
    is_good = is_good && report.devices.back().is_good;
  }
  (options.format == "json" ? PrintJson : PrintTable)(std::cout, report);
  if (!std::cout.flush()) {
    std::cerr << "tamselctl: the answers could not be written\n";
    return kExitOutputFailed;
  }
  return is_good ? kExitOk : kExitDeviceFailed;
}

void AddFrameOptions(CLI::App& command, Options& options) {
  CLI::Option_group* frame = command.add_option_group("frame", "What to send; exactly one kind");
  frame->require_option(1);
  frame
      ->add_option("--frame", options.frames,
                   "Bytes to send as they are, to all devices or, as ADDRESS:HEX, to one; "
                   "repeatable. When they are Modbus/TCP, the answer is checked against them")
      ->type_name("HEX");
  frame
      ->add_option(
          "--read-holding", options.read_holding,
          "Read holding registers (function 3), at most " + std::to_string(kMaxReadRegisters))
      ->type_name("START,COUNT");
  frame
      ->add_option(
          "--read-input", options.read_input,
          "Read input registers (function 4), at most " + std::to_string(kMaxReadRegisters))
      ->type_name("START,COUNT");
  frame
      ->add_option("--write-registers", options.write_registers,
                   "Write registers (function 16), at most " + std::to_string(kMaxWriteRegisters))
      ->type_name("START,VALUE[,VALUE...]");
}

}  // namespace

void AddRequestCommand(CLI::App& app, int& exit_code) {
  constexpr int kLongestMs = std::numeric_limits<int>::max();
  constexpr int kLongestTimeoutMs = std::numeric_limits<std::int16_t>::max();
  const auto options = std::make_shared<Options>();
  CLI::App& command = *app.add_subcommand(
      "request", "Send one request to devices of a channel and print their answers");
  command.footer(std::string("Numbers are decimal, or hexadecimal after 0x.\n\n") + kExitCodeHelp);
  AddNumber(command, "--channel", options->channel, 1, kMaxChannel, "Channel, 1 to 3")->required();
  command
      .add_option("--device", options->devices,
                  "A device of the channel, reached over TCP/IP; repeatable")
      ->type_name("ADDRESS=IP:PORT")
      ->required();
  AddFrameOptions(command, *options);
  AddNumber(command, "--unit", options->unit, 0, 255,
            "Modbus unit in the frames (default: the device's address)");
  AddNumber(command, "--timeout", options->timeout_ms, 1, kLongestTimeoutMs,
            "Milliseconds for the connect and for each send and receive of a device "
            "(default: 1000)");
  AddNumber(command, "--deadline", options->deadline_ms, 1, kLongestMs,
            "Milliseconds for the whole exchange with the daemon "
            "(default: 6 time-outs and 10000)");
  command.add_option("--socket", options->socket_path, "Socket of the daemon")
      ->type_name("PATH")
      ->capture_default_str();
  AddNumber(command, "--busy-wait", options->busy_wait_ms, 0, kLongestMs,
            "Milliseconds to try again for while the channel is busy (default: 0)");
  command.add_option("--format", options->format, "How to print: table or json")
      ->check(CLI::IsMember({"table", "json"}))
      ->capture_default_str();
  command.callback([options, &exit_code] { exit_code = RunRequest(*options); });
}

}  // namespace tmsc
