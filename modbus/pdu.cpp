#include "modbus/pdu.h"

#include <algorithm>
#include <iterator>

namespace modbus {
namespace {

// Offsets within a PDU.
constexpr std::size_t kFunction = 0;
constexpr std::size_t kData = 1;

// Function, start and count: a whole read, the answer to a write, the beginning of a write.
constexpr std::size_t kStartAndCountLength = kData + 4;

std::string ExceptionText(int code) {
  const char* name = ExceptionName(code);
  return "exception " + std::to_string(code) + (name != nullptr ? std::string(": ") + name : "");
}

AnswerCheck CheckReadAnswer(const Bytes& pdu, const Bytes& answer) {
  const auto count = static_cast<std::size_t>(WordAt(pdu, kData + 2));
  if (answer.size() != kData + 1 + 2 * count || answer[kData] != 2 * count) {
    return Misfit("not the registers asked for");
  }
  AnswerCheck result;
  for (std::size_t index = 0; index < count; ++index) {
    result.registers.push_back(WordAt(answer, kData + 1 + 2 * index));
  }
  return result;
}

}  // namespace

const char* ExceptionName(int code) {
  static constexpr const char* kNames[] = {nullptr,
                                           "illegal function",
                                           "illegal data address",
                                           "illegal data value",
                                           "server device failure",
                                           "acknowledge",
                                           "server device busy",
                                           nullptr,
                                           "memory parity error",
                                           nullptr,
                                           "gateway path unavailable",
                                           "gateway target device failed to respond"};
  return code >= 0 && code < static_cast<int>(std::size(kNames)) ? kNames[code] : nullptr;
}

Bytes ReadRegistersPdu(std::uint8_t function, int start, int count) {
  Bytes pdu{function};
  AppendWord(pdu, start);
  AppendWord(pdu, count);
  return pdu;
}

Bytes WriteRegistersPdu(int start, const std::vector<int>& values) {
  Bytes pdu{kWriteMultipleRegisters};
  AppendWord(pdu, start);
  AppendWord(pdu, static_cast<int>(values.size()));
  pdu.push_back(static_cast<std::uint8_t>(2 * values.size()));
  for (const int value : values) {
    AppendWord(pdu, value);
  }
  return pdu;
}

AnswerCheck Misfit(const std::string& text) {
  return {false, "misfit: " + text, {}};
}

AnswerCheck CheckPdu(const Bytes& pdu, const Bytes& answer) {
  const std::uint8_t function = pdu[kFunction];
  if (answer[kFunction] == (function | kExceptionFlag) && answer.size() == kData + 1) {
    return {false, ExceptionText(answer[kData]), {}, answer[kData]};
  }
  if (answer[kFunction] != function) {
    return Misfit("wrong function");
  }
  const bool is_read = function == kReadHoldingRegisters || function == kReadInputRegisters;
  if (is_read && pdu.size() == kStartAndCountLength) {
    return CheckReadAnswer(pdu, answer);
  }
  // A written block is confirmed by its start and count, which stand first in the request.
  if (function == kWriteMultipleRegisters && pdu.size() > kStartAndCountLength &&
      !(answer.size() == kStartAndCountLength &&
        std::equal(answer.begin(), answer.end(), pdu.begin()))) {
    return Misfit("not the registers written");
  }
  return {};
}

void AppendWord(Bytes& bytes, int value) {
  bytes.push_back(static_cast<std::uint8_t>(value >> 8));
  bytes.push_back(static_cast<std::uint8_t>(value & 0xFF));
}

int WordAt(const Bytes& bytes, std::size_t offset) {
  return bytes[offset] << 8 | bytes[offset + 1];
}

}  // namespace modbus
