#include "modbus_rtu.h"

#include <algorithm>
#include <string>

namespace tmsc {
namespace {

constexpr std::size_t kAddress = 0;
constexpr std::size_t kPdu = 1;
constexpr std::size_t kCrcLength = 2;

unsigned int Crc(const std::vector<byte>& bytes, std::size_t count) {
  constexpr unsigned int kReversedPolynomial = 0xA001;
  unsigned int crc = 0xFFFF;
  for (std::size_t index = 0; index < count; ++index) {
    crc ^= bytes[index];
    for (int bit = 0; bit < 8; ++bit) {
      crc = (crc & 1) != 0 ? crc >> 1 ^ kReversedPolynomial : crc >> 1;
    }
  }
  return crc;
}

std::vector<byte> Pdu(const std::vector<byte>& frame) {
  return {frame.begin() + kPdu, frame.end() - kCrcLength};
}

}  // namespace

void AppendModbusCrc(std::vector<byte>& bytes) {
  const unsigned int crc = Crc(bytes, bytes.size());
  bytes.push_back(static_cast<byte>(crc & 0xFF));
  bytes.push_back(static_cast<byte>(crc >> 8));
}

std::vector<byte> ModbusRtuFrame(int address, const std::vector<byte>& pdu) {
  std::vector<byte> frame(1 + pdu.size());
  frame[0] = static_cast<byte>(address);
  std::copy(pdu.begin(), pdu.end(), frame.begin() + 1);
  AppendModbusCrc(frame);
  return frame;
}

// The CRC over bytes and their own CRC is 0.
ModbusAnswer CheckModbusCrc(const std::vector<byte>& answer) {
  if (answer.size() <= kCrcLength || Crc(answer, answer.size()) != 0) {
    return {false, "wrong CRC", {}};
  }
  return {};
}

ModbusAnswer CheckModbusRtuAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer) {
  if (ModbusAnswer crc_check = CheckModbusCrc(answer); !crc_check.is_good) {
    return crc_check;
  }
  if (answer.size() <= kPdu + kCrcLength) {
    return ModbusMisfit("no Modbus RTU frame");
  }
  if (answer[kAddress] != frame[kAddress]) {
    return {false, "answer of device " + std::to_string(answer[kAddress]), {}};
  }
  return CheckModbusPdu(Pdu(frame), Pdu(answer));
}

}  // namespace tmsc
