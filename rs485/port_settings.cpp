#include "port_settings.h"

#include <charconv>
#include <cstdlib>

namespace rs485 {

namespace {

// More than that the kernel's drivers do not take either.
constexpr int kLongestDelayMs = 100;

struct DirectionWord {
  const char* word;
  DirectionControl::By by;
  bool is_rts_on_to_send;
};
constexpr DirectionWord kDirectionWords[] = {
    {"", DirectionControl::By::kDriverOrNobody, true},
    {"high", DirectionControl::By::kDriverOrLibrary, true},
    {"low", DirectionControl::By::kDriverOrLibrary, false},
    {"software-high", DirectionControl::By::kLibrary, true},
    {"software-low", DirectionControl::By::kLibrary, false},
};

/// Empty counts as not set.
std::string Variable(const std::string& name, int channel) {
  const char* const value = std::getenv((name + "_" + std::to_string(channel)).c_str());
  return value != nullptr ? value : "";
}

bool ReadDirection(const std::string& value, DirectionControl& direction) {
  for (const DirectionWord& known : kDirectionWords) {
    if (value == known.word) {
      direction.by = known.by;
      direction.is_rts_on_to_send = known.is_rts_on_to_send;
      return true;
    }
  }
  return false;
}

bool ReadDelay(const std::string& value, std::optional<std::chrono::milliseconds>& delay) {
  if (value.empty()) {
    return true;
  }
  int number = -1;
  const char* const end = value.data() + value.size();
  const std::from_chars_result result = std::from_chars(value.data(), end, number);
  delay = std::chrono::milliseconds(number);
  return result.ec == std::errc() && result.ptr == end && number >= 0 && number <= kLongestDelayMs;
}

bool ReadSilence(const std::string& value, FrameSilence& silence) {
  if (value == "characters") {
    silence = FrameSilence::kCharacters;
    return true;
  }
  return value.empty();
}

bool ReadEcho(const std::string& value, bool& is_echoing) {
  is_echoing = value == "1";
  return value.empty() || value == "0" || value == "1";
}

}  // namespace

std::optional<PortSettings> ReadPortSettings(int channel) {
  PortSettings settings{Variable("RS485_PORT", channel)};
  if (settings.device.empty()) {
    settings.device = "/dev/ttyRS485-" + std::to_string(channel);
  }
  settings.capture = Variable("RS485_CAPTURE", channel);
  const bool is_good =
      ReadDirection(Variable("RS485_RTS", channel), settings.direction) &&
      ReadDelay(Variable("RS485_DELAY_BEFORE", channel), settings.direction.delay_before) &&
      ReadDelay(Variable("RS485_DELAY_AFTER", channel), settings.direction.delay_after) &&
      ReadSilence(Variable("RS485_SILENCE", channel), settings.silence) &&
      ReadEcho(Variable("RS485_ECHO", channel), settings.is_echoing);
  return is_good ? std::optional<PortSettings>(settings) : std::nullopt;
}

}  // namespace rs485
