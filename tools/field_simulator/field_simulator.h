#ifndef TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_
#define TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fault.h"

namespace tmsc::simulator {

class TcpBus;
struct SimulatedDevice;

/// One Modbus/TCP device.
struct DeviceConfig {
  /// 1 or more, each only once; at most 247 with FieldSimulatorConfig::same_port.
  int address = 1;
  /// IPv4 address of this machine to listen on.
  std::string bind_address = "127.0.0.1";
  /// Port to listen on; 0: a free one that the kernel picks. On kFixedFramePort the device answers
  /// every read of bytes with FixedFrame(), its fault applied to that.
  std::uint16_t port = 0;
  Fault fault = FaultKind::kNone;
};

struct FieldSimulatorConfig {
  std::vector<DeviceConfig> devices;
  /// All devices behind the first one's IP address and port, as behind a gateway: the unit id of
  /// the MBAP header chooses the device, another unit id is answered with exception 11. Such a
  /// device cannot refuse.
  bool same_port = false;
};

/// Modbus/TCP devices that make mistakes on demand, served by one thread of its own.
///
/// Every operation but Start and Stop may be called from any thread between those two; Start and
/// Stop are for one thread at a time. Operations that take an address throw std::out_of_range when
/// there is no such device.
class FieldSimulator {
 public:
  /// Throws std::invalid_argument when the configuration contradicts itself.
  explicit FieldSimulator(FieldSimulatorConfig config);
  /// Stops.
  ~FieldSimulator();
  FieldSimulator(const FieldSimulator&) = delete;
  FieldSimulator& operator=(const FieldSimulator&) = delete;

  /// Binds every port and starts to serve; once only. Throws std::system_error with the endpoint in
  /// its text when one cannot be bound, std::invalid_argument when an address is no IPv4 address.
  void Start();

  /// Closes every connection and listener and ends the thread; what is not sent yet is dropped.
  void Stop();

  /// The port the device listens on, also while it refuses.
  std::uint16_t Port(int address) const;

  /// Changes a device's fault for the requests that come from now on. Refusing also closes its
  /// connections; leaving it listens on the same port again, and throws std::system_error when that
  /// was taken meanwhile. Answers under way, an endless one too, go on. Throws
  /// std::invalid_argument for kRefuse behind a gateway.
  void SetFault(int address, const Fault& fault);

  /// Connections the device has accepted so far; behind a gateway those of the gateway.
  std::uint64_t ConnectionsAccepted(int address) const;
  /// Whole requests the device has received so far, answered or not. Counted before the answer
  /// goes out, so a client that holds the answer finds its request counted.
  std::uint64_t RequestsReceived(int address) const;
  /// Connections of all devices that are open now.
  std::uint64_t OpenConnections() const;

 private:
  SimulatedDevice& Device(int address) const;

  FieldSimulatorConfig config_;
  std::vector<std::unique_ptr<SimulatedDevice>> devices_;
  std::unique_ptr<TcpBus> bus_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_
