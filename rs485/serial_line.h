#ifndef RS485_SERIAL_LINE_H_
#define RS485_SERIAL_LINE_H_

#include <chrono>
#include <cstddef>
#include <vector>

#include "bus_capture.h"
#include "direction_switch.h"
#include "line_codes.h"
#include "port_settings.h"

namespace rs485 {

using Clock = std::chrono::steady_clock;

/// How an operation on the line ended.
enum class LineEvent {
  kReady,    // there is input, or all was written
  kTimeout,  // the moment came first
  kGone,     // the serial device is gone, or Interrupt was called
};

/// A byte as the line delivered it.
struct Character {
  unsigned char byte;
  bool is_damaged;  // by a parity or framing error; or it stands for a break
};

/// One Linux serial device in raw mode (termios(3)). One thread at a time, except Interrupt.
class SerialLine {
 public:
  SerialLine();
  ~SerialLine();
  SerialLine(const SerialLine&) = delete;
  SerialLine& operator=(const SerialLine&) = delete;

  /// Opens the device at that speed. False with errno set when the system refuses.
  bool Open(const PortSettings& settings, const BaudRate& rate);
  void Close();
  /// Where all that is sent and heard is recorded, too, the caller's own; null: nowhere.
  void SetCapture(BusCapture* capture) { capture_ = capture; }
  bool IsOpen() const { return descriptor_ >= 0; }

  /// False when the device does not take it.
  bool SetFormat(const CharacterFormat& format);

  /// Waits until there is input or the moment comes.
  LineEvent WaitForInput(Clock::time_point until);

  /// Sends a frame, which takes `line_time`, and tells when its last bit has left at the latest:
  /// that may be still to come. kTimeout when the device does not take it in the time and `limit`.
  LineEvent Send(const std::vector<unsigned char>& frame, Clock::duration line_time,
                 Clock::duration limit, Clock::time_point& last_bit);

  struct Input {
    LineEvent event;    // kTimeout: there was none
    std::size_t count;  // characters; 0 is possible with kReady
    Character characters[256];
  };
  /// Takes what has arrived, as much as fits. Does not wait.
  Input Read();

  /// Makes the wait in progress, and those to come, end with kGone until Resume. Any thread.
  void Interrupt();
  void Resume();

 private:
  class Driving;

  LineEvent Wait(short events, Clock::time_point until);
  LineEvent Pause(Clock::time_point until);
  LineEvent Write(const std::vector<unsigned char>& frame, Clock::time_point until);
  LineEvent SendByHand(const std::vector<unsigned char>& frame, Clock::duration line_time,
                       Clock::duration limit, Clock::time_point& last_bit);
  LineEvent WaitUntilSent(Clock::time_point& last_bit, Clock::time_point until);
  bool Configure(const PortSettings& settings, const BaudRate& rate);
  void ChooseLowLatency();

  void Record(const Input& input);

  int descriptor_ = -1;
  const BaudRate* rate_ = nullptr;
  BusCapture* capture_ = nullptr;
  DirectionSwitch direction_;
  int interrupt_event_;
  const CharacterFormat* format_ = nullptr;
  int mark_length_ = 0;  // bytes of an error mark read so far
};

}  // namespace rs485

#endif  // RS485_SERIAL_LINE_H_
