#ifndef RS485_DIRECTION_SWITCH_H_
#define RS485_DIRECTION_SWITCH_H_

#include <chrono>

#include "port_settings.h"

namespace rs485 {

/// Switches one open serial device between sending and receiving. One thread at a time.
class DirectionSwitch {
 public:
  /// Has the driver switch where it can and should; else, where this library has to, lets go of the
  /// line. False with errno set when the device has no RTS to switch by.
  bool Prepare(int descriptor, const DirectionControl& control);

  /// Whether Drive has to be called around each frame.
  bool IsByLibrary() const { return is_by_library_; }

  /// Takes the line, or lets go of it. A device that is gone is noticed elsewhere.
  bool Drive(bool is_sending) const;

  /// Whether the device has sent all that it was given, as far as its driver can tell.
  bool IsSent() const;

  /// From the write, or, by the library, from Drive, to the first bit; from the last bit on.
  std::chrono::milliseconds DelayBefore() const { return delay_before_; }
  std::chrono::milliseconds DelayAfter() const { return delay_after_; }

 private:
  bool HasDriverDoIt(const DirectionControl& control) const;

  int descriptor_ = -1;
  bool is_by_library_ = false;
  bool is_rts_on_to_send_ = true;
  std::chrono::milliseconds delay_before_{0};
  std::chrono::milliseconds delay_after_{0};
};

}  // namespace rs485

#endif  // RS485_DIRECTION_SWITCH_H_
