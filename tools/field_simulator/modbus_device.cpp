#include "modbus_device.h"

#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <new>

#include "system_error.h"

namespace tmsc::simulator {
namespace {

modbus_t* NewContext(Transport transport) {
  // The names are never opened: the socket below takes the place of network and line.
  return transport == Transport::kTcp ? modbus_new_tcp("127.0.0.1", MODBUS_TCP_DEFAULT_PORT)
                                      : modbus_new_rtu("/dev/null", 9600, 'N', 8, 1);
}

}  // namespace

ModbusDevice::ModbusDevice(int address)
    : address_(address),
      registers_(
          modbus_mapping_new(kRegisterCount, kRegisterCount, kRegisterCount, kRegisterCount)) {
  if (registers_ == nullptr) {
    throw std::bad_alloc();
  }
  for (int index = 0; index < kRegisterCount; ++index) {
    const auto value = static_cast<std::uint16_t>((address * 1000 + index % 1000) & 0xFFFF);
    const auto bit = static_cast<std::uint8_t>((address + index) & 1);
    registers_->tab_registers[index] = value;
    registers_->tab_input_registers[index] = value;
    registers_->tab_bits[index] = bit;
    registers_->tab_input_bits[index] = bit;
  }
}

ModbusResponder::ModbusResponder(Transport transport)
    : transport_(transport), context_(NewContext(transport)) {
  if (context_ == nullptr) {
    throw std::bad_alloc();
  }
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw SystemError("cannot make a pair of sockets");
  }
  library_end_.Reset(ends[0]);
  own_end_.Reset(ends[1]);
  modbus_set_socket(context_.get(), library_end_.Get());
  // libmodbus sleeps for the response time-out before it answers some bad requests; all other
  // devices would wait with it.
  modbus_set_response_timeout(context_.get(), 0, 1);
}

Bytes ModbusResponder::Reply(const Bytes& request, ModbusDevice& device) {
  const std::size_t crc_length = transport_ == Transport::kRtu ? kCrcLength : 0;
  if (request.size() < NeededRequestLength(request, transport_) + crc_length) {
    return Exception(request, MODBUS_EXCEPTION_ILLEGAL_DATA_VALUE);
  }
  // libmodbus reads counts out of the frame and trusts them as far as its own largest frame.
  std::array<std::uint8_t, std::size_t{2} * MODBUS_TCP_MAX_ADU_LENGTH> frame{};
  const std::size_t length = std::min<std::size_t>(request.size(), MODBUS_TCP_MAX_ADU_LENGTH);
  std::copy_n(request.begin(), length, frame.begin());
  if (modbus_reply(context_.get(), frame.data(), static_cast<int>(length), device.Registers()) <
      0) {
    return Exception(request, MODBUS_EXCEPTION_ILLEGAL_FUNCTION);
  }
  return ReadBack();
}

Bytes ModbusResponder::Exception(const Bytes& request, unsigned int code) {
  if (transport_ == Transport::kRtu && request[0] == MODBUS_BROADCAST_ADDRESS) {
    return {};
  }
  modbus_reply_exception(context_.get(), request.data(), code);
  return ReadBack();
}

Bytes ModbusResponder::ReadBack() {
  Bytes frame(MODBUS_TCP_MAX_ADU_LENGTH);
  const ssize_t size = recv(own_end_.Get(), frame.data(), frame.size(), 0);
  frame.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
  return frame;
}

}  // namespace tmsc::simulator
