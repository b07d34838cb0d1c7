#include "request/request_devices.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "request/frame_limits.h"
#include "shared/arguments.h"
#include "shared/usage.h"
#include "status_text.h"
#include "tamsel_client.h"

namespace tmsc::ctl {
namespace {

const std::string kAddressRange = "an address of 1 to " + std::to_string(kMaxDeviceCountAtChannel);

Device ParseDevice(const std::string& text, bool is_rs485) {
  if (is_rs485) {
    const auto address = ParseNumber(text, 1, kMaxDeviceCountAtChannel);
    if (!address) {
      ThrowUsage("--device", text + " is not " + kAddressRange);
    }
    return {*address, "", 0, {}};
  }
  const auto place = ParseTcpDevice(text);
  if (!place) {
    ThrowUsage("--device", text + " is not ADDRESS=IP:PORT with " + kAddressRange);
  }
  return {place->address, place->ip_address, place->port, {}};
}

std::vector<Device> ParseDevices(const Options& options) {
  const auto has_place = [](const std::string& text) {
    return text.find('=') != std::string::npos;
  };
  const auto with_place = std::count_if(options.devices.begin(), options.devices.end(), has_place);
  if (with_place != 0 && static_cast<std::size_t>(with_place) != options.devices.size()) {
    ThrowUsage("--device", "TCP/IP devices, with =IP:PORT, and RS485 devices do not mix");
  }
  if (with_place != 0 && options.IsRs485()) {
    ThrowUsage("--baud", "TCP/IP devices, with =IP:PORT, have no speed");
  }
  if (with_place == 0 && !options.IsRs485()) {
    ThrowUsage("--device", "a device without =IP:PORT is reached over RS485 and needs --baud");
  }
  std::vector<Device> devices;
  for (const std::string& text : options.devices) {
    devices.push_back(ParseDevice(text, options.IsRs485()));
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
    if (given->address.value_or(device.address) == device.address) {
      if (!device.frame.empty()) {
        ThrowUsage("--frame", "a second frame for device " + std::to_string(device.address));
      }
      device.frame = given->frame;
      is_used = true;
    }
  }
  if (!is_used) {
    ThrowUsage("--frame", "no device " + std::to_string(given->address.value_or(0)));
  }
}

void SetRawFrames(std::vector<Device>& devices, const Options& options) {
  if (options.unit) {
    ThrowUsage("--unit", "the bytes of --frame are sent as they are");
  }
  for (const std::string& text : options.frames) {
    SetRawFrame(devices, text);
  }
  for (Device& device : devices) {
    if (device.frame.empty()) {
      ThrowUsage("--frame", "no frame for device " + std::to_string(device.address));
    }
    if (options.has_crc) {
      modbus::AppendCrc(device.frame);
    }
  }
}

std::vector<byte> ReadPdu(const std::string& option, byte function, const std::string& text) {
  const auto numbers = ParseNumberList(text);
  if (!numbers || numbers->size() != 2) {
    ThrowUsage(option, text + " is not START,COUNT");
  }
  const int start = numbers->at(0);
  const int count = numbers->at(1);
  if (count < 1 || count > modbus::kMaxReadRegisters || start + count > 0x10000) {
    ThrowUsage(option, "1 to " + std::to_string(modbus::kMaxReadRegisters) +
                           " registers, none above 65535, can be read");
  }
  return modbus::ReadRegistersPdu(function, start, count);
}

std::vector<byte> WritePdu(const std::string& option, const std::string& text, bool is_rs485) {
  auto numbers = ParseNumberList(text);
  if (!numbers) {
    ThrowUsage(option, text + " is not START,VALUE[,VALUE...]");
  }
  const int start = numbers->front();
  numbers->erase(numbers->begin());
  const int count = static_cast<int>(numbers->size());
  const int most = is_rs485 ? kMaxRtuWriteRegisters : kMaxTcpWriteRegisters;
  if (count > most || start + count > 0x10000) {
    ThrowUsage(option, "1 to " + std::to_string(most) +
                           " registers, none above 65535, can be written in a frame of at most " +
                           std::to_string(is_rs485 ? kMaxRtuFrameLength : kMaxSendFrameLength) +
                           " bytes");
  }
  return modbus::WriteRegistersPdu(start, *numbers);
}

std::vector<byte> MakePdu(const Options& options) {
  if (!options.read_holding.empty()) {
    return ReadPdu("--read-holding", modbus::kReadHoldingRegisters, options.read_holding);
  }
  if (!options.read_input.empty()) {
    return ReadPdu("--read-input", modbus::kReadInputRegisters, options.read_input);
  }
  return WritePdu("--write-registers", options.write_registers, options.IsRs485());
}

void SetModbusFrames(std::vector<Device>& devices, const Options& options) {
  if (options.has_crc) {
    ThrowUsage("--crc", "only --frame can do without a CRC");
  }
  if (options.is_broadcast && options.write_registers.empty()) {
    ThrowUsage("--broadcast", "nothing can be read from all devices at once");
  }
  const std::vector<byte> pdu = MakePdu(options);
  int transaction = 0;
  for (Device& device : devices) {
    const int unit = options.is_broadcast ? 0 : options.unit.value_or(device.address);
    device.frame = options.IsRs485() ? modbus::RtuFrame(unit, pdu)
                                     : modbus::TcpFrame(++transaction, unit, pdu);
  }
}

// The serial library takes a frame that begins with 0 for a broadcast, whatever was meant.
void CheckRs485Frames(const std::vector<Device>& devices, const Options& options) {
  if (options.is_broadcast && devices.size() > 1) {
    ThrowUsage("--broadcast", "one --device is enough, each would send it again");
  }
  for (const Device& device : devices) {
    if (device.frame.size() > kMaxRtuFrameLength) {
      ThrowUsage("--frame", "a frame of " + std::to_string(device.frame.size()) +
                                " bytes is longer than the " + std::to_string(kMaxRtuFrameLength) +
                                " that RS485 takes");
    }
    const bool begins_with_zero = device.frame.front() == 0;
    if (begins_with_zero != options.is_broadcast) {
      ThrowUsage("--broadcast", begins_with_zero ? "a frame with address byte 0 needs it"
                                                 : "the address byte of the frame is not 0");
    }
  }
}

std::string Place(const Device& device, const Options& options) {
  return options.IsRs485() ? std::string(options.baud->name) + " " + options.line.name
                           : device.ip_address + ":" + std::to_string(device.port);
}

modbus::AnswerCheck CheckAnswer(const Device& device, const Options& options,
                                const std::vector<byte>& answer) {
  if (!options.IsRs485()) {
    return modbus::CheckTcpAnswer(device.frame, answer);
  }
  // Without --crc the bytes of --frame may be anything, and so may the answer.
  return options.frames.empty() || options.has_crc ? modbus::CheckRtuAnswer(device.frame, answer)
                                                   : modbus::AnswerCheck{};
}

void CheckAdded(const Device& device, const BuildError& error) {
  if (error) {
    ThrowUsage("device " + std::to_string(device.address), *error);
  }
}

}  // namespace

std::vector<Device> MakeDevices(const Options& options) {
  std::vector<Device> devices = ParseDevices(options);
  if (options.frames.empty()) {
    SetModbusFrames(devices, options);
  } else {
    SetRawFrames(devices, options);
  }
  if (options.IsRs485()) {
    CheckRs485Frames(devices, options);
  }
  return devices;
}

TcpIpRequest BuildTcpIpRequest(const std::vector<Device>& devices, const Options& options) {
  TcpIpRequest request = MakeTcpIpRequest(options.channel);
  for (const Device& device : devices) {
    CheckAdded(device, AddTcpIpDevice(request, device.address, device.ip_address, device.port,
                                      options.timeout_ms, device.frame));
  }
  return request;
}

Rs485Request BuildRs485Request(const std::vector<Device>& devices, const Options& options) {
  Rs485Request request = MakeRs485Request(options.channel, options.baud->code);
  SetPortParams parameters{};
  parameters.databits = options.line.code;
  parameters.timeout = static_cast<std::int16_t>(options.timeout_ms);
  parameters.delimitertype = options.delimiter ? options.delimiter->value : byte{0};
  parameters.byte_after_delimiter =
      options.delimiter ? options.delimiter->bytes_after : static_cast<byte>(options.silence_ms);
  parameters.com_wait_time = static_cast<byte>(options.wait_ms);
  for (const Device& device : devices) {
    parameters.address = static_cast<byte>(device.address);
    CheckAdded(device, AddRs485Device(request, parameters, device.frame));
  }
  return request;
}

DeviceReport ReportDevice(const Device& device, const Options& options,
                          const ResponseReceiveData& response) {
  DeviceReport report;
  report.address = device.address;
  report.place = Place(device, options);
  const auto reply = DeviceAnswer(response, device.address);
  const auto status_text = options.IsRs485() ? Rs485DeviceStatusText : TcpDeviceStatusText;
  if (!reply) {
    report.status = "broken slot in the response";
  } else if (reply->status != 0) {
    report.status = status_text(reply->status);
  } else if (options.is_broadcast) {
    report.is_good = true;
    report.status = "sent";
  } else if (reply->frame.empty()) {
    report.status = "no answer";
  } else {
    modbus::AnswerCheck answer = CheckAnswer(device, options, reply->frame);
    report.is_good = answer.is_good;
    report.status = answer.is_good ? status_text(reply->status) : answer.text;
    report.answer = reply->frame;
    report.registers = std::move(answer.registers);
  }
  return report;
}

}  // namespace tmsc::ctl
