#include "request/request_devices.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "modbus/rtu_frame.h"
#include "request/frame_limits.h"
#include "shared/address_ranges.h"
#include "shared/arguments.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

constexpr int kAfterLastPlace = 0x10000;

const std::string kAddressRange =
    "an address or range of 1 to " + std::to_string(kMaxDeviceCountAtChannel);

// The devices of one --device, still without a frame.
std::vector<Device> ParseDevice(const std::string& text, bool is_rs485) {
  const std::size_t equals = text.find('=');
  const auto addresses = ParseRanges(text.substr(0, equals), 1, kMaxDeviceCountAtChannel);
  Device device;
  if (!is_rs485) {
    const std::size_t colon = text.rfind(':');
    const auto port = colon == std::string::npos ? std::optional(device.port)
                                                 : ParseNumber(text.substr(colon + 1), 1, 65535);
    if (!addresses || !port) {
      ThrowUsage("--device", text + " is not ADDRESS=IP[:PORT] with " + kAddressRange);
    }
    device.ip_address = text.substr(equals + 1, colon - equals - 1);
    device.port = *port;
  } else if (!addresses) {
    ThrowUsage("--device", text + " is not " + kAddressRange);
  }
  std::vector<Device> devices;
  for (const int address : *addresses) {
    device.address = device.unit = address;
    devices.push_back(device);
  }
  return devices;
}

void SetUnits(std::vector<Device>& devices, const Options& options) {
  if (options.units.empty()) {
    return;
  }
  if (options.units.size() > 1 && options.units.size() != devices.size()) {
    ThrowUsage("--unit", std::to_string(options.units.size()) + " units for " +
                             std::to_string(devices.size()) + " devices");
  }
  for (std::size_t index = 0; index < devices.size(); ++index) {
    devices[index].unit = options.units[options.units.size() == 1 ? 0 : index];
  }
}

std::vector<Device> ParseDevices(const Options& options) {
  const bool is_rs485 = options.bus.IsRs485();
  const auto has_place = [](const std::string& text) {
    return text.find('=') != std::string::npos;
  };
  const auto with_place = std::count_if(options.devices.begin(), options.devices.end(), has_place);
  if (with_place != 0 && static_cast<std::size_t>(with_place) != options.devices.size()) {
    ThrowUsage("--device", "TCP/IP devices, with =IP:PORT, and RS485 devices do not mix");
  }
  if (with_place != 0 && is_rs485) {
    ThrowUsage("--baud", "TCP/IP devices, with =IP:PORT, have no speed");
  }
  if (with_place == 0 && !is_rs485) {
    ThrowUsage("--device", "a device without =IP:PORT is reached over RS485 and needs --baud");
  }
  std::vector<Device> devices;
  for (const std::string& text : options.devices) {
    const std::vector<Device> more = ParseDevice(text, is_rs485);
    devices.insert(devices.end(), more.begin(), more.end());
  }
  SetUnits(devices, options);
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
  if (!options.units.empty()) {
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

void CheckType(const Read& read, const Options& options) {
  const int size = RegistersOf(options.type.value_or(ValueType::kU16));
  if (modbus::IsBitRead(read.function) && options.type) {
    ThrowUsage("--type", "coils and discrete inputs have none");
  }
  if (size > 1 && read.count % size != 0) {
    ThrowUsage("--type", "a value takes " + std::to_string(size) + " registers, and COUNT is " +
                             std::to_string(read.count));
  }
}

// What stands before the first comma and behind it.
std::pair<int, std::string> SplitStart(const std::string& option, const std::string& text,
                                       const std::string& form) {
  const std::size_t comma = text.find(',');
  const auto start = ParseNumber(text.substr(0, comma), 0, kAfterLastPlace - 1);
  if (!start || comma == std::string::npos) {
    ThrowUsage(option, text + " is not " + form);
  }
  return {*start, text.substr(comma + 1)};
}

void CheckWrite(const std::string& option, int start, std::size_t count, int most,
                const std::string& things, bool is_rs485) {
  if (count > static_cast<std::size_t>(most) || start + static_cast<int>(count) > kAfterLastPlace) {
    ThrowUsage(option, "1 to " + std::to_string(most) + things +
                           ", none above 65535, can be written in a frame of at most " +
                           std::to_string(is_rs485 ? kMaxRtuFrameLength : kMaxSendFrameLength) +
                           " bytes");
  }
}

std::vector<byte> WriteRegisters(const std::string& option, const Options& options) {
  const std::string form = "START,VALUE[,VALUE...]";
  const bool is_rs485 = options.bus.IsRs485();
  const auto [start, text] = SplitStart(option, options.write_registers, form);
  const auto registers =
      EncodeValues(text, options.type.value_or(ValueType::kU16), options.word_order);
  if (!registers) {
    ThrowUsage(option, options.write_registers + " is not " + form +
                           (options.type ? " of the --type" : ""));
  }
  CheckWrite(option, start, registers->size(),
             is_rs485 ? kMaxRtuWriteRegisters : kMaxTcpWriteRegisters, " registers", is_rs485);
  return modbus::WriteRegistersPdu(start, *registers);
}

std::vector<byte> WriteCoils(const std::string& option, const std::string& given, bool is_one,
                             const Options& options) {
  const std::string form = is_one ? "COIL,0|1" : "START,0|1[,0|1...]";
  const bool is_rs485 = options.bus.IsRs485();
  const auto [start, text] = SplitStart(option, given, form);
  std::vector<bool> bits;
  for (std::size_t index = 0; index <= text.size(); index += 2) {
    const std::string digit = text.substr(index, 1);
    const bool is_separated = index + 1 >= text.size() || text[index + 1] == ',';
    if ((digit != "0" && digit != "1") || !is_separated) {
      ThrowUsage(option, given + " is not " + form);
    }
    bits.push_back(digit == "1");
  }
  if (options.type) {
    ThrowUsage("--type", "coils and discrete inputs have none");
  }
  if (is_one && bits.size() > 1) {
    ThrowUsage(option, given + " is not " + form);
  }
  constexpr int kBitsInByte = 8;
  CheckWrite(option, start, bits.size(),
             kBitsInByte * (is_rs485 ? kMaxRtuWriteBytes : kMaxTcpWriteBytes), " coils", is_rs485);
  return is_one ? modbus::WriteCoilPdu(start, bits.front()) : modbus::WriteCoilsPdu(start, bits);
}

// Empty when nothing is said to be sent.
std::vector<byte> MakePdu(const Options& options) {
  if (const auto read = ParseRead(options.reads)) {
    CheckType(*read, options);
    return modbus::ReadRegistersPdu(read->function, read->start, read->count);
  }
  if (!options.write_registers.empty()) {
    return WriteRegisters("--write-registers", options);
  }
  if (!options.write_coil.empty()) {
    return WriteCoils("--write-coil", options.write_coil, true, options);
  }
  return options.write_coils.empty()
             ? std::vector<byte>()
             : WriteCoils("--write-coils", options.write_coils, false, options);
}

void SetModbusFrames(std::vector<Device>& devices, const Options& options) {
  if (options.has_crc) {
    ThrowUsage("--crc", "only --frame can do without a CRC");
  }
  const std::vector<byte> pdu = MakePdu(options);
  if (pdu.empty()) {
    ThrowUsage("--read-holding",
               "nothing is said to be sent: one of the options of frame is "
               "required");
  }
  if (options.is_broadcast &&
      (modbus::IsBitRead(pdu[0]) || pdu[0] == modbus::kReadHoldingRegisters ||
       pdu[0] == modbus::kReadInputRegisters)) {
    ThrowUsage("--broadcast", "nothing can be read from all devices at once");
  }
  int transaction = 0;
  for (Device& device : devices) {
    device.unit = options.is_broadcast ? 0 : device.unit;
    device.frame = MakeFrame(options.bus, ++transaction, device.unit, pdu);
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

}  // namespace

Batch MakeBatch(const Options& options) {
  if (options.bus.channel == 0 || options.devices.empty()) {
    ThrowUsage(options.bus.channel == 0 ? "--channel" : "--device",
               "is required, unless a --site file says it");
  }
  std::vector<Device> devices = ParseDevices(options);
  if (options.frames.empty()) {
    SetModbusFrames(devices, options);
  } else {
    SetRawFrames(devices, options);
  }
  if (options.bus.IsRs485()) {
    CheckRs485Frames(devices, options);
  }
  Batch batch;
  batch.bus = options.bus;
  batch.is_broadcast = options.is_broadcast;
  // Without --crc the bytes of --frame may be anything, and so may the answer.
  batch.is_checked = options.frames.empty() || options.has_crc;
  for (Device& device : devices) {
    Question question;
    question.device = std::move(device);
    question.type = options.type;
    question.word_order = options.word_order;
    batch.questions.push_back(std::move(question));
  }
  return batch;
}

}  // namespace tmsc::ctl
