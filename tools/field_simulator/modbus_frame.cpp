#include "modbus_frame.h"

namespace tmsc::simulator {
namespace {

// Functions that modbus/pdu.h does not name, "MODBUS Application Protocol" V1.1b3, 6.
constexpr std::uint8_t kMaskWriteRegister = 22;
constexpr std::uint8_t kReadWriteRegisters = 23;

}  // namespace

std::size_t NeededRequestLength(const Bytes& request, Transport transport) {
  const std::size_t function = FunctionOffset(transport);
  const auto with_data = [&request](std::size_t count_offset) {
    const std::size_t data = request.size() > count_offset ? request[count_offset] : 0;
    return count_offset + 1 + data;
  };
  switch (request[function]) {
    case modbus::kReadCoils:
    case modbus::kReadDiscreteInputs:
    case modbus::kReadHoldingRegisters:
    case modbus::kReadInputRegisters:
    case modbus::kWriteSingleCoil:
    case modbus::kWriteSingleRegister:
      return function + 5;
    case modbus::kWriteMultipleCoils:
    case modbus::kWriteMultipleRegisters:
      return with_data(function + 5);
    case kMaskWriteRegister:
      return function + 7;
    case kReadWriteRegisters:
      return with_data(function + 9);
    default:
      return function + 1;
  }
}

bool IsRtuFrame(const Bytes& bytes, std::size_t length) {
  return length >= ShortestFrame(Transport::kRtu) && length <= bytes.size() &&
         modbus::HasRightCrc(bytes.data(), length);
}

Bytes TakeFirst(Bytes& input, std::size_t count) {
  const auto end = input.begin() + static_cast<std::ptrdiff_t>(count);
  Bytes first(input.begin(), end);
  input.erase(input.begin(), end);
  return first;
}

}  // namespace tmsc::simulator
