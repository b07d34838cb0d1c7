#ifndef TAMSEL_FIELD_SIMULATOR_SIMULATED_DEVICE_H_
#define TAMSEL_FIELD_SIMULATOR_SIMULATED_DEVICE_H_

#include <atomic>
#include <cstdint>

#include "fault.h"
#include "modbus_device.h"

namespace tmsc::simulator {

/// A device with what its bus needs to know of it.
struct SimulatedDevice {
  SimulatedDevice(int address, const Fault& initial_fault)
      : registers(address), fault(initial_fault) {}

  ModbusDevice registers;
  /// Belongs to the bus, under the lock of the event loop.
  Fault fault;
  /// Written by the thread of the event loop, read by any.
  std::atomic<std::uint64_t> requests{0};
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_SIMULATED_DEVICE_H_
