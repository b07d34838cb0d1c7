#include "modbus_frame.h"

#include <modbus.h>

#include "modbus/crc16.h"

namespace tmsc::simulator {
namespace {

/// Address, function code and CRC.
constexpr std::size_t kShortestRtuFrame = 4;

}  // namespace

std::size_t NeededRequestLength(const Bytes& request, Transport transport) {
  const std::size_t function = FunctionOffset(transport);
  const auto with_data = [&request](std::size_t count_offset) {
    const std::size_t data = request.size() > count_offset ? request[count_offset] : 0;
    return count_offset + 1 + data;
  };
  switch (request[function]) {
    case MODBUS_FC_READ_EXCEPTION_STATUS:
    case MODBUS_FC_REPORT_SLAVE_ID:
      return function + 1;
    case MODBUS_FC_WRITE_MULTIPLE_COILS:
    case MODBUS_FC_WRITE_MULTIPLE_REGISTERS:
      return with_data(function + 5);
    case MODBUS_FC_MASK_WRITE_REGISTER:
      return function + 7;
    case MODBUS_FC_WRITE_AND_READ_REGISTERS:
      return with_data(function + 9);
    case MODBUS_FC_READ_COILS:
    case MODBUS_FC_READ_DISCRETE_INPUTS:
    case MODBUS_FC_READ_HOLDING_REGISTERS:
    case MODBUS_FC_READ_INPUT_REGISTERS:
    case MODBUS_FC_WRITE_SINGLE_COIL:
    case MODBUS_FC_WRITE_SINGLE_REGISTER:
      return function + 5;
    default:
      return function + 1;
  }
}

void SetCrc(Bytes* frame) {
  const std::size_t length = frame->size() - kCrcLength;
  frame->resize(length);
  modbus::AppendCrc(*frame);
}

bool HasRightCrc(const Bytes& bytes, std::size_t length) {
  return length >= kShortestRtuFrame && length <= bytes.size() &&
         modbus::HasRightCrc(bytes.data(), length);
}

}  // namespace tmsc::simulator
