#include "modbus/tcp_frame.h"

namespace modbus {
namespace {

// Offsets within a frame.
constexpr std::size_t kTransaction = 0;
constexpr std::size_t kProtocol = 2;
constexpr std::size_t kLength = 4;
constexpr std::size_t kUnit = 6;
constexpr std::size_t kFunction = kMbapLength;

int WordAt(const std::uint8_t* bytes, std::size_t offset) {
  return bytes[offset] << 8 | bytes[offset + 1];
}

// The length field counts the bytes after itself: unit and PDU, of which there is one at
// least.
bool IsModbusTcp(const std::uint8_t* frame, std::size_t length) {
  return length > kMbapLength && WordAt(frame, kProtocol) == 0 &&
         static_cast<std::size_t>(WordAt(frame, kLength)) == length - kUnit;
}

Bytes Pdu(const Bytes& frame) {
  return {frame.begin() + kMbapLength, frame.end()};
}

}  // namespace

Bytes TcpFrame(int transaction, int unit, const Bytes& pdu) {
  Bytes frame;
  AppendWord(frame, transaction);
  AppendWord(frame, 0);
  AppendWord(frame, static_cast<int>(pdu.size()) + 1);
  frame.push_back(static_cast<std::uint8_t>(unit));
  frame.insert(frame.end(), pdu.begin(), pdu.end());
  return frame;
}

AnswerCheck CheckTcpAnswer(const Bytes& frame, const Bytes& answer) {
  if (!IsModbusTcp(frame.data(), frame.size())) {
    return {};
  }
  if (!IsModbusTcp(answer.data(), answer.size())) {
    return Misfit("no Modbus/TCP frame");
  }
  if (WordAt(answer, kTransaction) != WordAt(frame, kTransaction)) {
    return Misfit("wrong transaction");
  }
  if (answer[kUnit] != frame[kUnit]) {
    return Misfit("wrong unit");
  }
  return CheckPdu(Pdu(frame), Pdu(answer));
}

AnswerOrigin OriginOfTcpAnswer(const std::uint8_t* frame, std::size_t frame_length,
                               const std::uint8_t* answer, std::size_t answer_length) {
  if (!IsModbusTcp(frame, frame_length)) {
    return AnswerOrigin::kDevice;
  }
  const bool has_pdu = answer_length > kFunction;
  const bool fits_by_transaction = answer_length > kTransaction + 1 &&
                                   WordAt(answer, kTransaction) == WordAt(frame, kTransaction);
  const bool fits_by_unit = has_pdu && answer[kUnit] == frame[kUnit] &&
                            (answer[kFunction] & ~kExceptionFlag) == frame[kFunction];
  if (!fits_by_transaction && !fits_by_unit) {
    return AnswerOrigin::kElsewhere;
  }
  return has_pdu ? OriginOfPdu(frame[kFunction], answer + kFunction, answer_length - kFunction)
                 : AnswerOrigin::kDevice;
}

}  // namespace modbus
