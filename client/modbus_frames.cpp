#include <algorithm>
#include <exception>

#include "modbus/crc16.h"
#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "tamsel.h"
#include "vlm_rs485.h"

namespace tmsc {
namespace {

using modbus::Bytes;

constexpr int kRegisterCount = 0x10000;
constexpr int kMaxWord = 0xFFFF;
constexpr int kMaxUnit = 0xFF;
constexpr int kMaxBusAddress = 247;
// Address and CRC.
constexpr int kRtuOverhead = 3;

bool IsWithin(int value, int least, int most) {
  return value >= least && value <= most;
}

bool IsUnit(int transport, int unit, int least_bus_address) {
  return transport == TAMSEL_RS485 ? IsWithin(unit, least_bus_address, kMaxBusAddress)
                                   : transport == TAMSEL_TCPIP && IsWithin(unit, 0, kMaxUnit);
}

bool AreRegisters(int start, int count, int most) {
  return IsWithin(count, 1, most) && IsWithin(start, 0, kRegisterCount - count);
}

int MaxWriteRegisters(int transport) {
  const int room = transport == TAMSEL_RS485 ? MAX_XFER_DATA_LENGTH - kRtuOverhead
                                             : TAMSEL_MAX_FRAME_LENGTH - modbus::kMbapLength;
  return (room - modbus::kWritePduOverhead) / 2;
}

int PutFrame(int transport, int transaction, int unit, const Bytes& pdu, unsigned char* frame) {
  const Bytes bytes = transport == TAMSEL_RS485 ? modbus::RtuFrame(unit, pdu)
                                                : modbus::TcpFrame(transaction, unit, pdu);
  std::copy(bytes.begin(), bytes.end(), frame);
  return static_cast<int>(bytes.size());
}

int ResultOf(const modbus::AnswerCheck& check, int transport, const Bytes& frame,
             const Bytes& answer) {
  if (check.is_good) {
    return TAMSEL_OK;
  }
  if (check.exception != 0) {
    return TAMSEL_MODBUS_EXCEPTION;
  }
  if (transport == TAMSEL_RS485 && !modbus::HasRightCrc(answer.data(), answer.size())) {
    return TAMSEL_WRONG_CHECK_SUM;
  }
  return transport == TAMSEL_RS485 && answer.front() != frame.front() ? TAMSEL_OTHER_DEVICE
                                                                      : TAMSEL_WRONG_ANSWER;
}

/// Runs what asks for memory, of which there may be none, for a caller that knows no exceptions.
template <typename Work>
int Guarded(const Work& work) {
  try {
    return work();
  } catch (const std::exception&) {
    return TAMSEL_NO_MEMORY;
  }
}

}  // namespace
}  // namespace tmsc

int tamsel_read_frame(int transport, int transaction, int unit, int function, int start, int count,
                      unsigned char* frame) {
  if (!tmsc::IsUnit(transport, unit, 1) || !tmsc::IsWithin(transaction, 0, tmsc::kMaxWord) ||
      !tmsc::IsWithin(function, modbus::kReadHoldingRegisters, modbus::kReadInputRegisters) ||
      !tmsc::AreRegisters(start, count, modbus::kMaxReadRegisters)) {
    return TAMSEL_BAD_VALUE;
  }
  return tmsc::Guarded([&] {
    const auto pdu = modbus::ReadRegistersPdu(static_cast<unsigned char>(function), start, count);
    return tmsc::PutFrame(transport, transaction, unit, pdu, frame);
  });
}

int tamsel_write_frame(int transport, int transaction, int unit, int start, const uint16_t* values,
                       int count, unsigned char* frame) {
  if (!tmsc::IsUnit(transport, unit, 0) || !tmsc::IsWithin(transaction, 0, tmsc::kMaxWord) ||
      !tmsc::AreRegisters(start, count, tmsc::MaxWriteRegisters(transport))) {
    return TAMSEL_BAD_VALUE;
  }
  return tmsc::Guarded([&] {
    const auto pdu = modbus::WriteRegistersPdu(start, {values, values + count});
    return tmsc::PutFrame(transport, transaction, unit, pdu, frame);
  });
}

int tamsel_decode_answer(int transport, const unsigned char* frame, size_t frame_length,
                         const unsigned char* answer, size_t answer_length,
                         tamsel_answer* decoded) {
  *decoded = {};
  if (transport != TAMSEL_RS485 && transport != TAMSEL_TCPIP) {
    return TAMSEL_BAD_VALUE;
  }
  return tmsc::Guarded([&] {
    const modbus::Bytes question(frame, frame + frame_length);
    const modbus::Bytes reply(answer, answer + answer_length);
    const auto check = transport == TAMSEL_RS485 ? modbus::CheckRtuAnswer : modbus::CheckTcpAnswer;
    const modbus::AnswerCheck result = check(question, reply);
    decoded->exception = result.exception;
    decoded->count = static_cast<int>(result.registers.size());
    std::transform(result.registers.begin(), result.registers.end(), decoded->values,
                   [](int value) { return static_cast<std::uint16_t>(value); });
    return tmsc::ResultOf(result, transport, question, reply);
  });
}

uint16_t tamsel_crc16(const unsigned char* bytes, size_t length) {
  return modbus::Crc16(bytes, length);
}

const char* tamsel_exception_text(int exception) {
  return modbus::ExceptionName(exception);
}
