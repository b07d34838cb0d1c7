#include "direction_switch.h"

#include <linux/serial.h>
#include <sys/ioctl.h>

#include <cstdint>

namespace rs485 {

namespace {

using By = DirectionControl::By;
using std::chrono::milliseconds;

void SetFlag(std::uint32_t& flags, std::uint32_t flag, bool is_set) {
  flags = is_set ? flags | flag : flags & ~flag;
}

}  // namespace

bool DirectionSwitch::Prepare(int descriptor, const DirectionControl& control) {
  descriptor_ = descriptor;
  const bool is_by_driver = HasDriverDoIt(control);
  is_by_library_ = !is_by_driver && control.by != By::kDriverOrNobody;
  is_rts_on_to_send_ = control.is_rts_on_to_send;
  const bool has_delays = is_by_driver || is_by_library_;
  delay_before_ = has_delays ? control.delay_before.value_or(milliseconds(0)) : milliseconds(0);
  delay_after_ = has_delays ? control.delay_after.value_or(milliseconds(0)) : milliseconds(0);
  return !is_by_library_ || Drive(false);
}

/// Asks the driver, where it knows RS485, to drive the line only while it sends; or not to, where
/// this library is to. Whether the driver then does all that was asked.
bool DirectionSwitch::HasDriverDoIt(const DirectionControl& control) const {
  serial_rs485 mode{};
  if (::ioctl(descriptor_, TIOCGRS485, &mode) != 0) {
    return false;
  }
  const bool is_wanted = control.by != By::kLibrary;
  SetFlag(mode.flags, SER_RS485_ENABLED, is_wanted);
  SetFlag(mode.flags, SER_RS485_RTS_ON_SEND, control.is_rts_on_to_send);
  SetFlag(mode.flags, SER_RS485_RTS_AFTER_SEND, !control.is_rts_on_to_send);
  SetFlag(mode.flags, SER_RS485_RX_DURING_TX, false);
  if (control.delay_before) {
    mode.delay_rts_before_send = static_cast<std::uint32_t>(control.delay_before->count());
  }
  if (control.delay_after) {
    mode.delay_rts_after_send = static_cast<std::uint32_t>(control.delay_after->count());
  }
  const serial_rs485 asked = mode;
  if (::ioctl(descriptor_, TIOCSRS485, &mode) != 0 || !is_wanted) {
    return false;
  }
  // A driver answers with what it really does.
  constexpr std::uint32_t kSwitching =
      SER_RS485_ENABLED | SER_RS485_RTS_ON_SEND | SER_RS485_RTS_AFTER_SEND;
  const bool is_as_asked = (mode.flags & kSwitching) == (asked.flags & kSwitching) &&
                           mode.delay_rts_before_send == asked.delay_rts_before_send &&
                           mode.delay_rts_after_send == asked.delay_rts_after_send;
  if (!is_as_asked && control.by == By::kDriverOrLibrary) {
    SetFlag(mode.flags, SER_RS485_ENABLED, false);
    ::ioctl(descriptor_, TIOCSRS485, &mode);
  }
  return is_as_asked;
}

bool DirectionSwitch::Drive(bool is_sending) const {
  const int line = TIOCM_RTS;
  return ::ioctl(descriptor_, is_sending == is_rts_on_to_send_ ? TIOCMBIS : TIOCMBIC, &line) == 0;
}

bool DirectionSwitch::IsSent() const {
  int state = 0;
  if (::ioctl(descriptor_, TIOCSERGETLSR, &state) == 0) {
    return (state & TIOCSER_TEMT) != 0;
  }
  return ::ioctl(descriptor_, TIOCOUTQ, &state) != 0 || state == 0;
}

}  // namespace rs485
