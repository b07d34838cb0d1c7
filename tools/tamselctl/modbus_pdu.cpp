#include "modbus_pdu.h"

#include <algorithm>
#include <iterator>

namespace tmsc {
namespace {

// Offsets within a PDU.
constexpr std::size_t kFunction = 0;
constexpr std::size_t kData = 1;

// Function, start and count: a whole read, the answer to a write, the beginning of a write.
constexpr std::size_t kStartAndCountLength = kData + 4;

constexpr byte kExceptionFlag = 0x80;

std::string ExceptionText(int code) {
  static constexpr const char* kNames[] = {"",
                                           "illegal function",
                                           "illegal data address",
                                           "illegal data value",
                                           "server device failure",
                                           "acknowledge",
                                           "server device busy",
                                           "",
                                           "memory parity error",
                                           "",
                                           "gateway path unavailable",
                                           "gateway target device failed to respond"};
  std::string text = "exception " + std::to_string(code);
  if (code < static_cast<int>(std::size(kNames)) && *kNames[code] != '\0') {
    text += std::string(": ") + kNames[code];
  }
  return text;
}

ModbusAnswer CheckReadAnswer(const std::vector<byte>& pdu, const std::vector<byte>& answer) {
  const auto count = static_cast<std::size_t>(ModbusWordAt(pdu, kData + 2));
  if (answer.size() != kData + 1 + 2 * count || answer[kData] != 2 * count) {
    return ModbusMisfit("not the registers asked for");
  }
  ModbusAnswer result;
  for (std::size_t index = 0; index < count; ++index) {
    result.registers.push_back(ModbusWordAt(answer, kData + 1 + 2 * index));
  }
  return result;
}

}  // namespace

std::vector<byte> ReadRegistersPdu(byte function, int start, int count) {
  std::vector<byte> pdu{function};
  AppendModbusWord(pdu, start);
  AppendModbusWord(pdu, count);
  return pdu;
}

std::vector<byte> WriteRegistersPdu(int start, const std::vector<int>& values) {
  std::vector<byte> pdu{kModbusWriteMultipleRegisters};
  AppendModbusWord(pdu, start);
  AppendModbusWord(pdu, static_cast<int>(values.size()));
  pdu.push_back(static_cast<byte>(2 * values.size()));
  for (const int value : values) {
    AppendModbusWord(pdu, value);
  }
  return pdu;
}

ModbusAnswer ModbusMisfit(const std::string& text) {
  return {false, "misfit: " + text, {}};
}

ModbusAnswer CheckModbusPdu(const std::vector<byte>& pdu, const std::vector<byte>& answer) {
  const byte function = pdu[kFunction];
  if (answer[kFunction] == (function | kExceptionFlag) && answer.size() == kData + 1) {
    return {false, ExceptionText(answer[kData]), {}};
  }
  if (answer[kFunction] != function) {
    return ModbusMisfit("wrong function");
  }
  const bool is_read =
      function == kModbusReadHoldingRegisters || function == kModbusReadInputRegisters;
  if (is_read && pdu.size() == kStartAndCountLength) {
    return CheckReadAnswer(pdu, answer);
  }
  // A written block is confirmed by its start and count, which stand first in the request.
  if (function == kModbusWriteMultipleRegisters && pdu.size() > kStartAndCountLength &&
      !(answer.size() == kStartAndCountLength &&
        std::equal(answer.begin(), answer.end(), pdu.begin()))) {
    return ModbusMisfit("not the registers written");
  }
  return {};
}

void AppendModbusWord(std::vector<byte>& bytes, int value) {
  bytes.push_back(static_cast<byte>(value >> 8));
  bytes.push_back(static_cast<byte>(value & 0xFF));
}

int ModbusWordAt(const std::vector<byte>& bytes, std::size_t offset) {
  return bytes[offset] << 8 | bytes[offset + 1];
}

}  // namespace tmsc
