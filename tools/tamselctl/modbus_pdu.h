/// Modbus PDUs (function code and data), the part of a frame that every transport carries alike:
/// the functions that read and write 16-bit registers, as "MODBUS Application Protocol"
/// V1.1b3 defines them.
#ifndef TAMSELCTL_MODBUS_PDU_H_
#define TAMSELCTL_MODBUS_PDU_H_

#include <cstddef>
#include <string>
#include <vector>

#include "communication_common.h"

namespace tmsc {

constexpr byte kModbusReadHoldingRegisters = 3;
constexpr byte kModbusReadInputRegisters = 4;
constexpr byte kModbusWriteMultipleRegisters = 16;

/// Most registers of one read, from the Modbus documents; the answer fits a slot on any transport.
constexpr int kMaxReadRegisters = 125;
/// Bytes of a write PDU beside its registers, which take two each.
constexpr int kWritePduOverhead = 6;

/// The PDU that reads `count` registers from `start` on.
std::vector<byte> ReadRegistersPdu(byte function, int start, int count);

/// The PDU that writes `values`, one or more that fit the transport's frame, from register `start`
/// on.
std::vector<byte> WriteRegistersPdu(int start, const std::vector<int>& values);

/// What an answer says about the frame it answers.
struct ModbusAnswer {
  bool is_good = true;
  std::string text;            // what is wrong; empty when good
  std::vector<int> registers;  // of a good answer to functions 3 and 4
};

/// An answer that does not belong to its frame.
ModbusAnswer ModbusMisfit(const std::string& text);

/// Checks the PDU of an answer against the PDU it answers; both have a function code at least. The
/// data of functions other than the three above say nothing and count as good.
ModbusAnswer CheckModbusPdu(const std::vector<byte>& pdu, const std::vector<byte>& answer);

/// Appends a 16-bit value, high byte first.
void AppendModbusWord(std::vector<byte>& bytes, int value);

/// The 16-bit value at `offset`, high byte first; both its bytes are there.
int ModbusWordAt(const std::vector<byte>& bytes, std::size_t offset);

}  // namespace tmsc

#endif  // TAMSELCTL_MODBUS_PDU_H_
