#ifndef TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_
#define TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_

#include <netinet/in.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "answer.h"
#include "event_loop.h"
#include "fault.h"
#include "modbus_device.h"
#include "piece_queue.h"
#include "simulated_device.h"
#include "utility/descriptor.h"

namespace tmsc::simulator {

/// The TCP devices: their listeners and connections, and for each connection the pieces still to be
/// sent.
///
/// AddListener before the event loop starts, Close after it has stopped. Port, SetFault and the
/// counters may be called from any thread in between.
class TcpBus : private EventLoop::Handler {
 public:
  /// The loop stays with the caller and outlives the bus. Throws std::system_error when there are
  /// no descriptors left.
  explicit TcpBus(EventLoop& loop);
  /// Closes.
  ~TcpBus() override;
  TcpBus(const TcpBus&) = delete;
  TcpBus& operator=(const TcpBus&) = delete;

  /// Binds an endpoint (port 0: one that the kernel picks) and takes connects there as its device
  /// does. As a gateway it takes any number of devices, else exactly one. The devices stay with
  /// the caller and outlive the bus. Throws as FieldSimulator::Start.
  void AddListener(const std::string& ip_address, std::uint16_t port, bool is_gateway,
                   std::vector<SimulatedDevice*> devices);

  /// Closes every connection and listener.
  void Close();

  /// These serve the operations of the same name of FieldSimulator.
  std::uint16_t Port(const SimulatedDevice& device) const;
  void SetFault(SimulatedDevice& device, const Fault& fault);
  std::uint64_t ConnectionsAccepted(const SimulatedDevice& device) const;
  std::uint64_t OpenConnections() const { return open_connections_; }

 private:
  using TimePoint = EventLoop::TimePoint;

  struct Listener {
    sockaddr_in endpoint{};
    bool is_gateway = false;
    std::vector<SimulatedDevice*> devices;
    /// Bound but not listening while the device refuses, so that the port stays its own.
    Descriptor descriptor;
    /// The connection that fills the queue of a device that accepts none.
    Descriptor filling;
    bool is_accepting = false;
    std::atomic<std::uint64_t> accepted{0};
  };

  struct Connection {
    std::uint64_t id = 0;
    Descriptor descriptor;
    Listener* listener = nullptr;
    Bytes input;
    PieceQueue output;
    /// When the last answer that is not stray is out.
    TimePoint busy_until;
    Ending ending = Ending::kKeepOpen;
    std::uint32_t interest = 0;
  };

  void HandleEvents(std::uint64_t id, std::uint32_t events) override;
  void HandleTime(std::uint64_t id) override;

  void Bind(Listener& listener);
  void Open(std::uint64_t id, Listener& listener, FaultKind kind);
  static void Fill(Listener& listener);
  void Shut(Listener& listener);
  void Accept(Listener& listener);
  void CloseConnection(std::uint64_t id);

  bool Receive(Connection& connection);
  void ServeInput(Connection& connection);
  void Serve(Connection& connection, Bytes request);
  void Enqueue(Connection& connection, Answer answer);
  bool Transmit(Connection& connection);
  PieceQueue::Result SendQueued(Connection& connection);
  void Arm(Connection& connection, bool is_blocked);

  std::map<std::uint64_t, std::unique_ptr<Listener>>::const_iterator ListenerOf(
      const SimulatedDevice& device) const;

  EventLoop& loop_;
  /// Given up for a moment to accept and close a connection when descriptors run out.
  Descriptor spare_;
  ModbusResponder responder_;
  /// By the id that the loop gave.
  std::map<std::uint64_t, std::unique_ptr<Listener>> listeners_;
  std::map<std::uint64_t, std::unique_ptr<Connection>> connections_;
  std::atomic<std::uint64_t> open_connections_{0};
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_TCP_BUS_H_
