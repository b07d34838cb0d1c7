#ifndef RS485_PORT_SETTINGS_H_
#define RS485_PORT_SETTINGS_H_

#include <chrono>
#include <optional>
#include <string>

#include "line_codes.h"

namespace rs485 {

/// Who switches the line between sending and receiving, and how.
struct DirectionControl {
  enum class By {
    kDriverOrNobody,   // the driver where it knows RS485; adapters that switch by themselves
    kDriverOrLibrary,  // the driver where it does as asked, else this library by RTS
    kLibrary,          // this library by RTS, whatever the driver knows
  };
  By by = By::kDriverOrNobody;
  bool is_rts_on_to_send = true;  // RTS while the line is driven; the opposite while it is not
  // From the switching to the first bit, and from the last bit to the switching back; without a
  // value what the driver has.
  std::optional<std::chrono::milliseconds> delay_before = std::nullopt;
  std::optional<std::chrono::milliseconds> delay_after = std::nullopt;
};

/// What the environment says about the port of a channel; README.md beside this file tables it.
struct PortSettings {
  std::string device;
  DirectionControl direction = {};
  FrameSilence silence = FrameSilence::kGuide;
  bool is_echoing = false;   // what is sent comes back
  std::string capture = {};  // file to record in; empty: none
};

/// Reads the variables of a channel. Nothing when one of them has a value that it cannot have.
std::optional<PortSettings> ReadPortSettings(int channel);

}  // namespace rs485

#endif  // RS485_PORT_SETTINGS_H_
