#ifndef TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_
#define TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "fault.h"

namespace tmsc::simulator {

class EventLoop;
class RtuBus;
class TcpBus;
struct SimulatedDevice;

/// One Modbus/TCP device.
struct DeviceConfig {
  /// 1 or more, each only once; at most 247 with FieldSimulatorConfig::is_same_port.
  int address = 1;
  /// IPv4 address of this machine to listen on.
  std::string bind_address = "127.0.0.1";
  /// Port to listen on; 0: a free one that the kernel picks. On kFixedFramePort the device answers
  /// every read of bytes with FixedFrame(), its fault applied to that.
  std::uint16_t port = 0;
  Fault fault = FaultKind::kNone;
};

/// One Modbus RTU device on an RS485 bus.
struct RtuDeviceConfig {
  /// 1 to 247, each only once on its bus.
  int address = 1;
  Fault fault = FaultKind::kNone;
};

/// One RS485 bus on a pseudo-terminal.
struct RtuBusConfig {
  /// Where the symbolic link to the terminal is made that clients open as their serial port. A
  /// symbolic link that is there already is replaced.
  std::string path;
  /// At most 31.
  std::vector<RtuDeviceConfig> devices;
  /// Baud rate at whose pace answers come, 11 bits a character; 0: at once.
  int baud_rate = 0;
  /// Whether the adapter hears what it sends: each request comes back to the client.
  bool is_echoing = false;
};

struct FieldSimulatorConfig {
  std::vector<DeviceConfig> devices;
  /// All devices behind the first one's IP address and port, as behind a gateway: the unit id of
  /// the MBAP header chooses the device, another unit id is answered with exception 11. Such a
  /// device cannot refuse.
  bool is_same_port = false;
  /// Each with a path of its own.
  std::vector<RtuBusConfig> buses = {};
};

/// Modbus/TCP devices, and RS485 buses of Modbus RTU devices, that make mistakes on demand, served
/// by one thread of its own.
///
/// Every operation but Start and Stop may be called from any thread between those two; Start and
/// Stop are for one thread at a time. Operations that take an address throw std::out_of_range when
/// there is no such device. Buses go by their index in
/// FieldSimulatorConfig::buses; an operation that takes one throws std::out_of_range when there is
/// no such bus, and its address is that of a device on this bus. Without a bus an address is that
/// of a TCP device.
class FieldSimulator {
 public:
  /// Throws std::invalid_argument when the configuration contradicts itself.
  explicit FieldSimulator(FieldSimulatorConfig config);
  /// Stops.
  ~FieldSimulator();
  FieldSimulator(const FieldSimulator&) = delete;
  FieldSimulator& operator=(const FieldSimulator&) = delete;

  /// Binds every port, plugs in every bus and starts to serve; once only. Throws std::system_error
  /// with the endpoint or path in its text when one cannot be had, std::invalid_argument when an
  /// address is no IPv4 address.
  void Start();

  /// Closes every connection and listener, unplugs every bus and ends the thread; what is not sent
  /// yet is dropped.
  void Stop();

  /// The port the device listens on, also while it refuses.
  std::uint16_t Port(int address) const;

  /// Changes a device's fault for the requests that come from now on. A fault at the
  /// connect also closes its connections; to set and to leave one binds the same port again, and
  /// throws std::system_error when that was taken meanwhile. Answers under way, an endless one too,
  /// go on otherwise. Throws std::invalid_argument for a fault at the connect behind a gateway and
  /// for one that is not of the transport.
  void SetFault(int address, const Fault& fault);
  void SetFault(std::size_t bus, int address, const Fault& fault);

  /// Pulls the bus' adapter out: clients get a hang-up, the link is gone, answers under way are
  /// lost. Nothing when it is out already.
  void Unplug(std::size_t bus);
  /// Plugs it in again: another terminal, the same link. Nothing when it is in. Throws
  /// std::system_error with the path in its text.
  void Plug(std::size_t bus);
  /// The terminal's own name, /dev/pts/N; empty while the adapter is out.
  std::string TerminalName(std::size_t bus) const;

  /// Connections the device has accepted so far; behind a gateway those of the gateway.
  std::uint64_t ConnectionsAccepted(int address) const;
  /// Whole requests the device has received so far, answered or not. Counted before the answer
  /// goes out, so a client that holds the answer finds its request counted.
  /// A request to all devices of a bus counts for each.
  std::uint64_t RequestsReceived(int address) const;
  std::uint64_t RequestsReceived(std::size_t bus, int address) const;
  /// Connections of all devices that are open now.
  std::uint64_t OpenConnections() const;

 private:
  SimulatedDevice& Device(int address) const;

  FieldSimulatorConfig config_;
  std::vector<std::unique_ptr<SimulatedDevice>> devices_;
  std::unique_ptr<EventLoop> loop_;
  std::unique_ptr<TcpBus> tcp_bus_;
  std::vector<std::unique_ptr<RtuBus>> rtu_buses_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_FIELD_SIMULATOR_H_
