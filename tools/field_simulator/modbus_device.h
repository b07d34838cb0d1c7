#ifndef TAMSEL_FIELD_SIMULATOR_MODBUS_DEVICE_H_
#define TAMSEL_FIELD_SIMULATOR_MODBUS_DEVICE_H_

#include <modbus.h>

#include <memory>

#include "answer.h"
#include "modbus_frame.h"
#include "utility/descriptor.h"

namespace tmsc::simulator {

/// The registers of one device: coils, discrete inputs, holding and input registers 0 to 9999.
/// Holding and input register r of device n start as n * 1000 + r % 1000 (modulo 65536), coil and
/// discrete input r as set when n + r is odd. What a client writes stays. One thread at a time.
class ModbusDevice {
 public:
  static constexpr int kRegisterCount = 10000;

  /// Throws std::bad_alloc.
  explicit ModbusDevice(int address);

  int Address() const { return address_; }
  /// Owned by the device.
  modbus_mapping_t* Registers() { return registers_.get(); }

 private:
  struct FreeMapping {
    void operator()(modbus_mapping_t* mapping) const { modbus_mapping_free(mapping); }
  };

  int address_;
  std::unique_ptr<modbus_mapping_t, FreeMapping> registers_;
};

/// Lets libmodbus build replies, an RTU frame's CRC included: it writes them to one end of a pair
/// of sockets, and they are read back from the other. One serves any number of devices, one thread
/// at a time.
class ModbusResponder {
 public:
  /// Throws std::system_error when there are no descriptors left, std::bad_alloc.
  explicit ModbusResponder(Transport transport);

  /// The reply of `device` to a whole request frame of the transport, written registers taken over.
  /// A request too short for its function gets exception 3, one with a function libmodbus does not
  /// serve exception 1. Empty when an RTU request is addressed to all devices.
  Bytes Reply(const Bytes& request, ModbusDevice& device);

  /// The reply with the given Modbus exception code (MODBUS_EXCEPTION_...).
  Bytes Exception(const Bytes& request, unsigned int code);

 private:
  struct FreeContext {
    void operator()(modbus_t* context) const { modbus_free(context); }
  };

  Bytes ReadBack();

  Transport transport_;
  Descriptor library_end_;
  Descriptor own_end_;
  std::unique_ptr<modbus_t, FreeContext> context_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_MODBUS_DEVICE_H_
