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
  const bool is_bits = IsBitRead(pdu[kFunction]);
  const std::size_t byte_count = is_bits ? (count + 7) / 8 : 2 * count;
  if (answer.size() != kData + 1 + byte_count || answer[kData] != byte_count) {
    return Misfit(is_bits ? "not the bits asked for" : "not the registers asked for");
  }
  AnswerCheck result;
  if (is_bits) {
    for (std::size_t index = 0; index < count; ++index) {
      result.bits.push_back((answer[kData + 1 + index / 8] >> index % 8 & 1) != 0);
    }
    return result;
  }
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

Bytes WriteCoilPdu(int coil, bool is_on) {
  Bytes pdu{kWriteSingleCoil};
  AppendWord(pdu, coil);
  AppendWord(pdu, is_on ? 0xFF00 : 0);
  return pdu;
}

Bytes WriteCoilsPdu(int start, const std::vector<bool>& values) {
  Bytes pdu{kWriteMultipleCoils};
  AppendWord(pdu, start);
  AppendWord(pdu, static_cast<int>(values.size()));
  pdu.push_back(static_cast<std::uint8_t>((values.size() + 7) / 8));
  pdu.resize(pdu.size() + pdu.back());
  for (std::size_t index = 0; index < values.size(); ++index) {
    if (values[index]) {
      std::uint8_t& eight = pdu[kWritePduOverhead + index / 8];
      eight = static_cast<std::uint8_t>(eight | 1U << index % 8);
    }
  }
  return pdu;
}

AnswerOrigin OriginOfPdu(std::uint8_t function, const std::uint8_t* answer, std::size_t length) {
  return length == kData + 1 && answer[kFunction] == (function | kExceptionFlag) &&
                 IsOfGateway(answer[kData])
             ? AnswerOrigin::kGateway
             : AnswerOrigin::kDevice;
}

AnswerCheck Misfit(const std::string& text) {
  return {false, "misfit: " + text, {}};
}

AnswerCheck CheckPdu(const Bytes& pdu, const Bytes& answer) {
  const std::uint8_t function = pdu[kFunction];
  if (answer[kFunction] == (function | kExceptionFlag) && answer.size() == kData + 1) {
    return {false, ExceptionText(answer[kData]), {}, {}, answer[kData]};
  }
  if (answer[kFunction] != function) {
    return Misfit("wrong function");
  }
  if (IsRead(function) && pdu.size() == kStartAndCountLength) {
    return CheckReadAnswer(pdu, answer);
  }
  // What was written is confirmed by its place with its value or its count, which stand first in
  // the request.
  const bool is_one = function == kWriteSingleCoil || function == kWriteSingleRegister;
  const bool is_block = function == kWriteMultipleCoils || function == kWriteMultipleRegisters;
  const bool is_whole =
      is_one ? pdu.size() == kStartAndCountLength : is_block && pdu.size() > kStartAndCountLength;
  if (is_whole && !(answer.size() == kStartAndCountLength &&
                    std::equal(answer.begin(), answer.end(), pdu.begin()))) {
    const bool is_coil = function == kWriteSingleCoil || function == kWriteMultipleCoils;
    return Misfit(is_coil ? "not the coils written" : "not the registers written");
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
