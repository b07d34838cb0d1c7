#ifndef TAMSEL_FIELD_SIMULATOR_RTU_BUS_H_
#define TAMSEL_FIELD_SIMULATOR_RTU_BUS_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
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

/// One RS485 bus of Modbus RTU devices on a pseudo-terminal, whose far side a symbolic link names.
///
/// A request is served as soon as its last byte is there; bytes that make no request are dropped
/// once the bus has been silent for 50 ms. The devices do not wait for each other, so the bytes of
/// two that answer at the same time mix, as on a line. What the client leaves unread stays there
/// for the next one, except that bytes for which the terminal has no room are lost.
///
/// AddDevice before the event loop starts. All else may be called from any thread.
class RtuBus : private EventLoop::Handler {
 public:
  /// The loop stays with the caller and outlives the bus. baud_rate above 0: what the client hears
  /// comes at the pace of a line of that speed, 11 bits a character. is_echoing: its adapter hears
  /// what it sends; each request comes back. Throws std::system_error when there are no descriptors
  /// left.
  RtuBus(EventLoop& loop, std::string path, int baud_rate, bool is_echoing);
  /// Unplugs.
  ~RtuBus() override;
  RtuBus(const RtuBus&) = delete;
  RtuBus& operator=(const RtuBus&) = delete;

  void AddDevice(int address, const Fault& fault);

  /// Makes a pseudo-terminal and the symbolic link to it. A symbolic link that is there is
  /// replaced, anything else is left alone. Nothing when it is plugged in. Throws std::system_error
  /// with the path in its text.
  void Plug();
  /// Closes the pseudo-terminal, which hangs up on the client, and removes the link; answers under
  /// way are lost. Nothing when it is not plugged in.
  void Unplug();

  /// The far side's own name (/dev/pts/N); empty when it is not plugged in.
  std::string TerminalName() const;
  /// These serve the operations of the same name of FieldSimulator.
  void SetFault(int address, const Fault& fault);
  std::uint64_t RequestsReceived(int address) const;

 private:
  using TimePoint = EventLoop::TimePoint;

  struct BusDevice {
    BusDevice(int address, const Fault& fault) : device(address, fault) {}

    SimulatedDevice device;
    /// When its last answer that is not stray is out.
    TimePoint busy_until;
  };

  void HandleEvents(std::uint64_t id, std::uint32_t events) override;
  void HandleTime(std::uint64_t id) override;

  void OpenTerminal();
  void Link();
  void RemoveLink();
  void ServeInput();
  void ServeAfterSilence();
  void Serve(Bytes request);
  std::vector<Piece> Paced(std::vector<Piece> pieces, std::chrono::nanoseconds lead) const;
  ssize_t Write(const std::uint8_t* bytes, std::size_t size, bool is_damaged);
  void SetMarks(bool is_marking);
  void TransmitAndArm();
  /// The device's index in devices_.
  std::size_t IndexOf(int address) const;

  EventLoop& loop_;
  const std::string path_;
  /// 0 without pacing.
  const std::chrono::nanoseconds character_time_;
  const bool is_echoing_;
  ModbusResponder responder_;
  std::deque<BusDevice> devices_;

  /// All that follows belongs to one plugging in. 0: not plugged in.
  std::uint64_t id_ = 0;
  Descriptor master_;
  /// Open as long as the master, which would report a hang-up whenever no client is there.
  Descriptor far_side_;
  std::string terminal_name_;
  Bytes input_;
  /// When the bytes in input_ are not a part of a request any more.
  std::optional<TimePoint> silent_at_;
  /// The client's marks of errors, until it asks again.
  bool are_marks_off_ = false;
  PieceQueue output_;
};

}  // namespace tmsc::simulator

#endif  // TAMSEL_FIELD_SIMULATOR_RTU_BUS_H_
