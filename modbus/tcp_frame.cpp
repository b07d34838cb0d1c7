#include "modbus/tcp_frame.h"

namespace modbus {
namespace {

// Offsets within a frame.
constexpr std::size_t kTransaction = 0;
constexpr std::size_t kProtocol = 2;
constexpr std::size_t kLength = 4;
constexpr std::size_t kUnit = 6;

// The length field counts the bytes after itself: unit and PDU, of which there is one at
// least.
bool IsModbusTcp(const Bytes& frame) {
  return frame.size() > kMbapLength && WordAt(frame, kProtocol) == 0 &&
         static_cast<std::size_t>(WordAt(frame, kLength)) == frame.size() - kUnit;
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
  return CheckPdu(Pdu(frame), Pdu(answer));
}

}  // namespace modbus
