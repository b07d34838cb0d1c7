#ifndef TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_
#define TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "answer.h"
#include "fault.h"
#include "modbus_device.h"
#include "utility/descriptor.h"

namespace tmsc::simulator {

/// A device with what its bus needs to know of it.
struct SimulatedDevice {
  SimulatedDevice(int address, const Fault& initial_fault)
      : registers(address), fault(initial_fault) {}

  ModbusDevice registers;
  /// Belongs to the bus, under its lock.
  Fault fault;
  /// Written by the thread of the bus, read by any.
  std::atomic<std::uint64_t> requests{0};
};

/// The event loop of the TCP devices: one thread, epoll, and for each connection a queue of the
/// pieces still to be sent with the time each is due.
///
/// AddListener, then Start, then Stop, on one thread. Port, SetFault and the counters may be called
/// from any thread in between.
class TcpBus {
 public:
  /// Throws std::system_error when there are no descriptors left.
  TcpBus();
  /// Stops.
  ~TcpBus();
  TcpBus(const TcpBus&) = delete;
  TcpBus& operator=(const TcpBus&) = delete;

  /// Binds an endpoint (port 0: one that the kernel picks) and listens there, unless its device
  /// refuses. As a gateway it takes any number of devices, else exactly one. The devices stay with
  /// the caller and outlive the bus. Throws as FieldSimulator::Start.
  void AddListener(const std::string& ip_address, std::uint16_t port, bool gateway,
                   std::vector<SimulatedDevice*> devices);

  /// Starts the thread.
  void Start();
  /// Ends the thread and closes everything.
  void Stop();

  /// These serve the operations of the same name of FieldSimulator.
  std::uint16_t Port(const SimulatedDevice& device) const;
  void SetFault(SimulatedDevice* device, const Fault& fault);
  std::uint64_t ConnectionsAccepted(const SimulatedDevice& device) const;
  std::uint64_t OpenConnections() const { return open_connections_; }

 private:
  using TimePoint = std::chrono::steady_clock::time_point;

  struct Listener {
    sockaddr_in endpoint{};
    bool gateway = false;
    std::vector<SimulatedDevice*> devices;
    /// Bound but not listening while the device refuses, so that the port stays its own.
    Descriptor descriptor;
    bool listening = false;
    std::atomic<std::uint64_t> accepted{0};
  };

  struct QueuedPiece {
    TimePoint due;
    Bytes bytes;
    std::size_t sent = 0;
  };

  struct Connection {
    std::uint64_t id = 0;
    Descriptor descriptor;
    Listener* listener = nullptr;
    Bytes input;
    /// In order of time.
    std::deque<QueuedPiece> output;
    /// When the last answer that is not stray is out.
    TimePoint busy_until;
    Ending ending = Ending::kKeepOpen;
    std::optional<TimePoint> wake;
    std::uint32_t interest = 0;
  };

  void Run();
  int WaitTime() const;
  void HandleEvent(std::uint64_t id, std::uint32_t events);
  void WakeConnections();

  void Bind(Listener* listener);
  void Listen(std::uint64_t id, Listener* listener);
  void StopListening(Listener* listener);
  void Accept(Listener* listener);
  void Close(std::uint64_t id);

  bool Receive(Connection* connection);
  void ServeInput(Connection* connection);
  void Serve(Connection* connection, Bytes request);
  void Enqueue(Connection* connection, Answer answer);
  bool Transmit(Connection* connection);
  bool SendQueued(Connection* connection, bool* blocked);
  void Arm(Connection* connection, bool blocked);
  void Watch(int descriptor, std::uint64_t id, std::uint32_t events, int operation);

  std::map<std::uint64_t, std::unique_ptr<Listener>>::const_iterator ListenerOf(
      const SimulatedDevice& device) const;

  /// Held by the thread except while it waits for events.
  mutable std::mutex mutex_;
  bool stop_ = false;
  Descriptor epoll_;
  Descriptor wake_event_;
  /// Given up for a moment to accept and close a connection when descriptors run out.
  Descriptor spare_;
  ModbusResponder responder_;
  /// By id, 1 and up. An event carries the id, never a pointer: what it is about may be gone.
  std::uint64_t last_id_ = 0;
  std::map<std::uint64_t, std::unique_ptr<Listener>> listeners_;
  std::map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  std::set<std::pair<TimePoint, std::uint64_t>> wakes_;
  std::atomic<std::uint64_t> open_connections_{0};
  std::thread thread_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_
