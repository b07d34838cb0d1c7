#ifndef RS485_SERIAL_LINE_H_
#define RS485_SERIAL_LINE_H_

#include <chrono>
#include <cstddef>
#include <string>

#include "line_codes.h"

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
  bool Open(const std::string& path, const BaudRate& rate);
  void Close();
  bool IsOpen() const { return descriptor_ >= 0; }

  /// False when the device does not take it.
  bool SetFormat(const CharacterFormat& format);

  /// Waits until there is input or the moment comes.
  LineEvent WaitForInput(Clock::time_point until);

  /// Writes all bytes; kTimeout when the device does not take them until the moment.
  LineEvent Write(const unsigned char* bytes, std::size_t count, Clock::time_point until);

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
  LineEvent Wait(short events, Clock::time_point until);
  void SetTimer(Clock::time_point moment) const;
  bool Configure(const BaudRate& rate);
  void ChooseHardwareMode();

  int descriptor_ = -1;
  int timer_ = -1;  // open while the device is
  int interrupt_event_;
  const CharacterFormat* format_ = nullptr;
  int mark_length_ = 0;  // bytes of an error mark read so far
};

}  // namespace rs485

#endif  // RS485_SERIAL_LINE_H_
