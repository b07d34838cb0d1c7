/// Modbus/TCP frames: the MBAP header (transaction, protocol, length, unit) and the functions that
/// read and write 16-bit registers, as the "MODBUS Application Protocol Specification" V1.1b3 and
/// the "MODBUS Messaging on TCP/IP Implementation Guide" V1.0b define them.
#ifndef TAMSELCTL_MODBUS_TCP_H_
#define TAMSELCTL_MODBUS_TCP_H_

#include <string>
#include <vector>

#include "communication_common.h"

namespace tmsc {

constexpr byte kModbusReadHoldingRegisters = 3;
constexpr byte kModbusReadInputRegisters = 4;
constexpr byte kModbusWriteMultipleRegisters = 16;

/// Most registers of one read, from the Modbus documents; their answer of 259 bytes fits a slot.
constexpr int kMaxReadRegisters = 125;
/// Most registers of one write whose frame, 13 bytes and two a register, fits a request.
constexpr int kMaxWriteRegisters = (kMaxSendFrameLength - 13) / 2;

/// The PDU (function code and data) that reads `count` registers from `start` on.
std::vector<byte> ReadRegistersPdu(byte function, int start, int count);

/// The PDU that writes `values`, 1 to kMaxWriteRegisters of them, from register `start` on.
std::vector<byte> WriteRegistersPdu(int start, const std::vector<int>& values);

/// Puts the MBAP header before a PDU.
std::vector<byte> ModbusTcpFrame(int transaction, int unit, const std::vector<byte>& pdu);

/// What an answer says about the frame it answers.
struct ModbusAnswer {
  bool is_good = true;
  std::string text;            // what is wrong; empty when good
  std::vector<int> registers;  // of a good answer to functions 3 and 4
};

/// Checks `answer` against the frame it answers. A frame that is no Modbus/TCP itself says nothing
/// about its answer, which then counts as good.
ModbusAnswer CheckModbusAnswer(const std::vector<byte>& frame, const std::vector<byte>& answer);

}  // namespace tmsc

#endif  // TAMSELCTL_MODBUS_TCP_H_
