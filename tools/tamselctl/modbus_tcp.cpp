#include "modbus_tcp.h"

#include <algorithm>

namespace tmsc {
namespace {

// Offsets within a frame.
constexpr std::size_t kTransaction = 0;
constexpr std::size_t kProtocol = 2;
constexpr std::size_t kLength = 4;
constexpr std::size_t kUnit = 6;
constexpr std::size_t kFunction = 7;
constexpr std::size_t kData = 8;

constexpr byte kExceptionFlag = 0x80;

void AppendWord(std::vector<byte>& bytes, int value) {
  bytes.push_back(static_cast<byte>(value >> 8));
  bytes.push_back(static_cast<byte>(value & 0xFF));
}

int WordAt(const std::vector<byte>& bytes, std::size_t offset) {
  return bytes[offset] << 8 | bytes[offset + 1];
}

// The length field counts the bytes after itself: unit, function and data.
bool IsModbusTcp(const std::vector<byte>& frame) {
  return frame.size() >= kData && WordAt(frame, kProtocol) == 0 &&
         static_cast<std::size_t>(WordAt(frame, kLength)) == frame.size() - kUnit;
}

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

ModbusAnswer Misfit(const std::string& text) {
  return {false, "misfit: " + text, {}};
}

ModbusAnswer CheckReadAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer) {
  const auto count = static_cast<std::size_t>(WordAt(frame, kData + 2));
  if (answer.size() != kData + 1 + 2 * count || answer[kData] != 2 * count) {
    return Misfit("not the registers asked for");
  }
  ModbusAnswer result;
  for (std::size_t index = 0; index < count; ++index) {
    result.registers.push_back(WordAt(answer, kData + 1 + 2 * index));
  }
  return result;
}

}  // namespace

std::vector<byte> ReadRegistersPdu(byte function, int start, int count) {
  std::vector<byte> pdu{function};
  AppendWord(pdu, start);
  AppendWord(pdu, count);
  return pdu;
}

std::vector<byte> WriteRegistersPdu(int start, const std::vector<int>& values) {
  std::vector<byte> pdu{kModbusWriteMultipleRegisters};
  AppendWord(pdu, start);
  AppendWord(pdu, static_cast<int>(values.size()));
  pdu.push_back(static_cast<byte>(2 * values.size()));
  for (const int value : values) {
    AppendWord(pdu, value);
  }
  return pdu;
}

std::vector<byte> ModbusTcpFrame(int transaction, int unit, const std::vector<byte>& pdu) {
  std::vector<byte> frame;
  AppendWord(frame, transaction);
  AppendWord(frame, 0);
  AppendWord(frame, static_cast<int>(pdu.size()) + 1);
  frame.push_back(static_cast<byte>(unit));
  frame.insert(frame.end(), pdu.begin(), pdu.end());
  return frame;
}

ModbusAnswer CheckModbusAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer) {
  if (!IsModbusTcp(frame)) {
    return {};
  }
  if (!IsModbusTcp(answer)) {
    return Misfit("no Modbus/TCP frame");
  }
  if (WordAt(answer, kTransaction) != WordAt(frame, kTransaction)) {
    return Misfit("wrong transaction");
  }
  if (answer[kUnit] != frame[kUnit]) {
    return Misfit("wrong unit");
  }
  const byte function = frame[kFunction];
  if (answer[kFunction] == (function | kExceptionFlag) && answer.size() == kData + 1) {
    return {false, ExceptionText(answer[kData]), {}};
  }
  if (answer[kFunction] != function) {
    return Misfit("wrong function");
  }
  const bool is_read =
      function == kModbusReadHoldingRegisters || function == kModbusReadInputRegisters;
  if (is_read && frame.size() == kData + 4) {
    return CheckReadAnswer(frame, answer);
  }
  // A written block is confirmed by its start and count, which stand first in the request.
  if (function == kModbusWriteMultipleRegisters && frame.size() > kData + 4 &&
      !(answer.size() == kData + 4 &&
        std::equal(answer.begin() + kData, answer.end(), frame.begin() + kData))) {
    return Misfit("not the registers written");
  }
  return {};
}

}  // namespace tmsc
