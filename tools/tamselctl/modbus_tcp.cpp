#include "modbus_tcp.h"

namespace tmsc {
namespace {

// Offsets within a frame.
constexpr std::size_t kTransaction = 0;
constexpr std::size_t kProtocol = 2;
constexpr std::size_t kLength = 4;
constexpr std::size_t kUnit = 6;

// The length field counts the bytes after itself: unit and PDU, of which there is a byte at least.
bool IsModbusTcp(const std::vector<byte>& frame) {
  return frame.size() > kMbapLength && ModbusWordAt(frame, kProtocol) == 0 &&
         static_cast<std::size_t>(ModbusWordAt(frame, kLength)) == frame.size() - kUnit;
}

std::vector<byte> Pdu(const std::vector<byte>& frame) {
  return {frame.begin() + kMbapLength, frame.end()};
}

}  // namespace

std::vector<byte> ModbusTcpFrame(int transaction, int unit, const std::vector<byte>& pdu) {
  std::vector<byte> frame;
  AppendModbusWord(frame, transaction);
  AppendModbusWord(frame, 0);
  AppendModbusWord(frame, static_cast<int>(pdu.size()) + 1);
  frame.push_back(static_cast<byte>(unit));
  frame.insert(frame.end(), pdu.begin(), pdu.end());
  return frame;
}

ModbusAnswer CheckModbusTcpAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer) {
  if (!IsModbusTcp(frame)) {
    return {};
  }
  if (!IsModbusTcp(answer)) {
    return ModbusMisfit("no Modbus/TCP frame");
  }
  if (ModbusWordAt(answer, kTransaction) != ModbusWordAt(frame, kTransaction)) {
    return ModbusMisfit("wrong transaction");
  }
  if (answer[kUnit] != frame[kUnit]) {
    return ModbusMisfit("wrong unit");
  }
  return CheckModbusPdu(Pdu(frame), Pdu(answer));
}

}  // namespace tmsc
