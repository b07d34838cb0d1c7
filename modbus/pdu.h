/// Modbus PDUs (function code and data), the part of a frame that every transport carries alike:
/// the functions that read and write 16-bit registers and single bits (coils and discrete inputs),
/// as "MODBUS Application Protocol" V1.1b3 defines them.
#ifndef MODBUS_PDU_H_
#define MODBUS_PDU_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "modbus/crc16.h"

namespace modbus {

constexpr std::uint8_t kReadCoils = 1;
constexpr std::uint8_t kReadDiscreteInputs = 2;
constexpr std::uint8_t kReadHoldingRegisters = 3;
constexpr std::uint8_t kReadInputRegisters = 4;
constexpr std::uint8_t kWriteSingleCoil = 5;
constexpr std::uint8_t kWriteSingleRegister = 6;
constexpr std::uint8_t kWriteMultipleCoils = 15;
constexpr std::uint8_t kWriteMultipleRegisters = 16;

/// Set in the function code of an answer that reports an exception; one byte, its code, follows.
constexpr std::uint8_t kExceptionFlag = 0x80;

/// Most registers of one read, from the Modbus documents; the answer fits a slot on any transport.
constexpr int kMaxReadRegisters = 125;
/// Most coils or discrete inputs of one read.
constexpr int kMaxReadBits = 2000;
/// Bytes of a write PDU beside its registers, which take two each, or its coils, eight to a byte.
constexpr int kWritePduOverhead = 6;

/// Exceptions by which a gateway says that the device behind it is not there.
constexpr int kGatewayPathUnavailable = 10;
constexpr int kGatewayTargetFailedToRespond = 11;

/// Whether an exception is a gateway's word that the device behind it did not answer.
constexpr bool IsOfGateway(int exception) {
  return exception == kGatewayPathUnavailable || exception == kGatewayTargetFailedToRespond;
}

/// Whether a function reads coils or discrete inputs.
constexpr bool IsBitRead(std::uint8_t function) {
  return function == kReadCoils || function == kReadDiscreteInputs;
}

/// Whether a function reads bits or registers, so that its answer's length follows from its
/// request.
constexpr bool IsRead(int function) {
  return function >= kReadCoils && function <= kReadInputRegisters;
}

/// The PDU that reads `count` registers (functions 3 and 4) or bits (1 and 2) from `start` on.
Bytes ReadRegistersPdu(std::uint8_t function, int start, int count);

/// The PDU that writes `values`, one or more that fit the transport's frame, from register `start`
/// on.
Bytes WriteRegistersPdu(int start, const std::vector<int>& values);

/// The PDU that switches one coil on or off.
Bytes WriteCoilPdu(int coil, bool is_on);

/// The PDU that switches one or more coils that fit the transport's frame, from coil `start` on.
Bytes WriteCoilsPdu(int start, const std::vector<bool>& values);

/// Who an answer is from, as far as its head, the frame's and the check sum tell.
enum class AnswerOrigin {
  kDevice,    // nothing says otherwise
  kGateway,   // of the device nothing came: IsOfGateway
  kDamaged,   // the check sum is wrong
  kElsewhere  // it answers another frame, or is another device's
};

/// Who a PDU is from that answers one with this function: a gateway or the device.
AnswerOrigin OriginOfPdu(std::uint8_t function, const std::uint8_t* answer, std::size_t length);

/// What an answer says about the frame it answers.
struct AnswerCheck {
  bool is_good = true;
  std::string text;             // what is wrong; empty when good
  std::vector<int> registers;   // of a good answer to functions 3 and 4
  std::vector<bool> bits = {};  // of a good answer to functions 1 and 2
  int exception = 0;            // code of the Modbus exception that was answered; 0: none
};

/// An answer that does not belong to its frame.
AnswerCheck Misfit(const std::string& text);

/// Checks the PDU of an answer against the PDU it answers; both have a function code at least. The
/// data of functions other than those above say nothing and count as good.
AnswerCheck CheckPdu(const Bytes& pdu, const Bytes& answer);

/// An exception code in words; null for one that the Modbus documents do not define.
const char* ExceptionName(int code);

/// Appends a 16-bit value, high byte first.
void AppendWord(Bytes& bytes, int value);

/// The 16-bit value at `offset`, high byte first; both its bytes are there.
int WordAt(const Bytes& bytes, std::size_t offset);

}  // namespace modbus

#endif  // MODBUS_PDU_H_
