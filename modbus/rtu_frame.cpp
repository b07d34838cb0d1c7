#include "modbus/rtu_frame.h"

#include <algorithm>
#include <string>

namespace modbus {
namespace {

// Offsets within a frame.
constexpr std::size_t kAddress = 0;
constexpr std::size_t kFunction = 1;
constexpr std::size_t kByteCount = 2;
constexpr std::size_t kCrcLength = 2;

// Addresses above 247 are reserved, and so are function codes that carry the exception flag; a
// function code of 0 is not valid.
bool IsModbusRtu(const std::uint8_t* frame, std::size_t length) {
  constexpr std::uint8_t kMaxAddress = 247;
  return length > kFunction + kCrcLength && HasRightCrc(frame, length) &&
         frame[kAddress] <= kMaxAddress && frame[kFunction] != 0 &&
         (frame[kFunction] & kExceptionFlag) == 0;
}

Bytes Pdu(const Bytes& frame) {
  return {frame.begin() + kFunction, frame.end() - kCrcLength};
}

}  // namespace

Bytes RtuFrame(int address, const Bytes& pdu) {
  Bytes frame(1 + pdu.size());
  frame[kAddress] = static_cast<std::uint8_t>(address);
  std::copy(pdu.begin(), pdu.end(), frame.begin() + kFunction);
  AppendCrc(frame);
  return frame;
}

std::size_t RtuAnswerLength(const std::uint8_t* bytes, std::size_t count) {
  if (count <= kFunction) {
    return 0;
  }
  constexpr std::size_t kHead = kByteCount;  // address and function
  const std::uint8_t function = bytes[kFunction];
  if ((function & kExceptionFlag) != 0) {
    return kHead + 1 + kCrcLength;
  }
  switch (function) {
    case kReadCoils:
    case kReadDiscreteInputs:
    case kReadHoldingRegisters:
    case kReadInputRegisters:
    case 12:  // communication event log
    case 17:  // report server id
    case 20:  // read file record
    case 21:  // write file record
    case 23:  // read and write registers
      return count > kByteCount ? kHead + 1 + bytes[kByteCount] + kCrcLength : 0;
    case 24:  // read FIFO queue, with a byte count of two bytes
      return count > kByteCount + 1
                 ? kHead + 2 +
                       static_cast<std::size_t>(bytes[kByteCount] << 8 | bytes[kByteCount + 1]) +
                       kCrcLength
                 : 0;
    case 7:  // read exception status
      return kHead + 1 + kCrcLength;
    case kWriteSingleCoil:
    case kWriteSingleRegister:
    case 8:   // diagnostics, all but one of whose subfunctions carry one word
    case 11:  // communication event counter
    case kWriteMultipleCoils:
    case kWriteMultipleRegisters:
      return kHead + 4 + kCrcLength;
    case 22:  // mask write register
      return kHead + 6 + kCrcLength;
    default:
      return 0;
  }
}

AnswerCheck CheckRtuAnswer(const Bytes& frame, const Bytes& answer) {
  if (!HasRightCrc(answer.data(), answer.size())) {
    return {false, "wrong CRC", {}};
  }
  if (!IsModbusRtu(frame.data(), frame.size())) {
    return {};
  }
  if (answer.size() <= kFunction + kCrcLength) {
    return Misfit("no Modbus RTU frame");
  }
  if (answer[kAddress] != frame[kAddress]) {
    return {false, "answer of device " + std::to_string(answer[kAddress]), {}};
  }
  return CheckPdu(Pdu(frame), Pdu(answer));
}

AnswerOrigin OriginOfRtuAnswer(const std::uint8_t* frame, std::size_t frame_length,
                               const std::uint8_t* answer, std::size_t answer_length) {
  if (!IsModbusRtu(frame, frame_length)) {
    return AnswerOrigin::kDevice;
  }
  if (!HasRightCrc(answer, answer_length)) {
    return AnswerOrigin::kDamaged;
  }
  if (answer_length <= kFunction + kCrcLength || answer[kAddress] != frame[kAddress] ||
      (answer[kFunction] & ~kExceptionFlag) != frame[kFunction]) {
    return AnswerOrigin::kElsewhere;
  }
  return OriginOfPdu(frame[kFunction], answer + kFunction, answer_length - kFunction - kCrcLength);
}

}  // namespace modbus
