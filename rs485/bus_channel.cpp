#include "bus_channel.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace rs485 {

namespace {

constexpr unsigned int kAllFlags = (1u << RS485_MAX_MC_NUM) - 1;

bool IsAddress(unsigned char address) {
  return address >= 1 && address <= RS485_MAX_MC_NUM;
}

}  // namespace

/// Ends the cycle in progress and holds the channel.
class BusChannel::Interruption {
 public:
  explicit Interruption(BusChannel& channel) : channel_(channel) {
    ++channel_.interruptions_;
    channel_.line_.Interrupt();
    channel_.mutex_.lock();
    if (--channel_.interruptions_ == 0) {
      channel_.line_.Resume();
    }
  }
  ~Interruption() { channel_.mutex_.unlock(); }
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

 private:
  BusChannel& channel_;
};

BusChannel::BusChannel(int channel) : channel_(channel) {}

std::string BusChannel::DevicePath() const {
  const std::string number = std::to_string(channel_);
  const char* path = std::getenv(("RS485_PORT_" + number).c_str());
  return path != nullptr && *path != '\0' ? path : "/dev/ttyRS485-" + number;
}

int BusChannel::Open(unsigned char baud_code) {
  const BaudRate* rate = FindBaudRate(baud_code);
  if (rate == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const Interruption interruption(*this);
  is_open_ = line_.Open(DevicePath(), *rate);
  rate_ = rate;
  has_answers_ = false;
  last_activity_ = Clock::now();
  return is_open_ ? 0 : -1;
}

void BusChannel::Close() {
  const Interruption interruption(*this);
  line_.Close();
  is_open_ = false;
}

int BusChannel::SetParameters(unsigned char address, unsigned char format_code, short timeout_ms,
                              unsigned char delimiter, unsigned char after_delimiter,
                              unsigned char wait_ms) {
  const CharacterFormat* format = FindCharacterFormat(format_code);
  if (!IsAddress(address) || format == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  Device& device = devices_[address - 1];
  device.format = format;
  device.timeout = std::chrono::milliseconds(std::max<int>(timeout_ms, 0));
  device.delimiter = delimiter;
  device.after_delimiter = after_delimiter;
  device.wait = std::chrono::milliseconds(wait_ms);
  return 0;
}

void BusChannel::SetListener(void (*listener)()) {
  const std::lock_guard<std::mutex> lock(mutex_);
  listener_ = listener;
}

bool BusChannel::PutFrame(unsigned char address, const xfer_data& data) {
  if (!IsAddress(address) || data.xfr_da == nullptr || data.xfr_da_len == 0 ||
      data.xfr_da_len > MAX_XFER_DATA_LENGTH) {
    return false;
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!is_open_) {
    return false;
  }
  devices_[address - 1].frame.assign(data.xfr_da, data.xfr_da + data.xfr_da_len);
  return true;
}

bool BusChannel::SetFlags(unsigned int flags) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!is_open_ || (flags & ~kAllFlags) != 0) {
    return false;
  }
  flags_ = flags;
  return true;
}

bool BusChannel::RunCycle() {
  void (*listener)() = nullptr;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    // The device may be back since it was found gone.
    if (!is_open_ || (!line_.IsOpen() && !line_.Open(DevicePath(), *rate_))) {
      return false;
    }
    for (int i = 0; i < RS485_MAX_MC_NUM; ++i) {
      Device& device = devices_[i];
      const bool is_served = (flags_ & 1u << i) != 0 && !device.frame.empty();
      answers_.rcv_dt[i] = is_served ? &device.answer : nullptr;
      if (is_served) {
        Serve(device);
      }
      device.frame.clear();
    }
    flags_ = 0;
    has_answers_ = true;
    listener = listener_;
  }
  if (listener != nullptr) {
    listener();
  }
  return true;
}

receive_data_full* BusChannel::Answers() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return has_answers_ ? &answers_ : nullptr;
}

void BusChannel::Serve(Device& device) {
  device.answer_bytes.clear();
  const unsigned char status = line_.IsOpen() && interruptions_ == 0
                                   ? Exchange(device)
                                   : static_cast<unsigned char>(VLM_RS485_PORT_GONE);
  if (status == VLM_RS485_PORT_GONE) {
    line_.Close();
  }
  if (status != VLM_RS485_ANSWERED) {
    device.answer_bytes.clear();
  }
  device.answer = {static_cast<std::uint16_t>(device.answer_bytes.size()), status,
                   device.answer_bytes.data()};
}

/// One exchange with a device; returns its receive status.
unsigned char BusChannel::Exchange(Device& device) {
  if (!line_.SetFormat(*device.format)) {
    return VLM_RS485_PORT_GONE;
  }
  const Duration silence = InterFrameSilence(*rate_, *device.format);
  const Duration frame_time =
      CharacterTime(*rate_, *device.format) * static_cast<long>(device.frame.size());
  // The whole exchange is bounded here, also when noise on the line delays it.
  const Clock::time_point end = Clock::now() + silence + device.wait + frame_time + device.timeout;
  switch (KeepSilence(device, end)) {
    case LineEvent::kTimeout:
      return VLM_RS485_LINE_ERROR;
    case LineEvent::kGone:
      return VLM_RS485_PORT_GONE;
    case LineEvent::kReady:
      break;
  }
  const Clock::time_point start = Clock::now();
  switch (line_.Write(device.frame.data(), device.frame.size(), end)) {
    case LineEvent::kTimeout:
      return VLM_RS485_NO_ANSWER;
    case LineEvent::kGone:
      return VLM_RS485_PORT_GONE;
    case LineEvent::kReady:
      break;
  }
  last_activity_ = start + frame_time;
  if (device.frame.front() == 0) {
    return VLM_RS485_ANSWERED;
  }
  return Receive(device, std::min(end, last_activity_ + device.timeout));
}

/// Discards input until the line has been silent for long enough to address the device.
LineEvent BusChannel::KeepSilence(const Device& device, Clock::time_point until) {
  const Duration silence = InterFrameSilence(*rate_, *device.format);
  const Clock::time_point start = Clock::now();
  while (true) {
    const Clock::time_point quiet = std::max(last_activity_ + silence, start) + device.wait;
    const LineEvent event = line_.WaitForInput(std::min(quiet, until));
    if (event == LineEvent::kGone) {
      return event;
    }
    if (event == LineEvent::kTimeout) {
      return quiet <= until ? LineEvent::kReady : LineEvent::kTimeout;
    }
    unsigned char discarded[256];
    if (line_.Read(discarded, sizeof(discarded)).event == LineEvent::kGone) {
      return LineEvent::kGone;
    }
    last_activity_ = Clock::now();
  }
}

/// Whether the answer has its delimiter and the bytes behind it; takes off what came after them.
bool BusChannel::EndsWithDelimiter(Device& device) {
  std::vector<unsigned char>& bytes = device.answer_bytes;
  const auto delimiter = std::find(bytes.begin(), bytes.end(), device.delimiter);
  if (device.delimiter == 0 || bytes.end() - delimiter <= device.after_delimiter) {
    return false;
  }
  bytes.erase(delimiter + 1 + device.after_delimiter, bytes.end());
  return true;
}

/// Adds what arrives until the moment to the device's answer.
LineEvent BusChannel::TakeInput(Device& device, bool& is_damaged, Clock::time_point until) {
  const LineEvent event = line_.WaitForInput(until);
  if (event != LineEvent::kReady) {
    return event;
  }
  unsigned char chunk[256];
  const SerialLine::Input input = line_.Read(chunk, sizeof(chunk));
  if (input.event == LineEvent::kGone) {
    return LineEvent::kGone;
  }
  last_activity_ = Clock::now();
  is_damaged = is_damaged || input.is_damaged;
  device.answer_bytes.insert(device.answer_bytes.end(), chunk, chunk + input.count);
  return LineEvent::kReady;
}

unsigned char BusChannel::Receive(Device& device, Clock::time_point until) {
  const Duration end_silence =
      std::max<Duration>(InterFrameSilence(*rate_, *device.format),
                         device.delimiter == 0 ? std::chrono::milliseconds(device.after_delimiter)
                                               : std::chrono::milliseconds(0));
  std::vector<unsigned char>& bytes = device.answer_bytes;
  bool is_damaged = false;
  while (true) {
    const bool is_frame_open = device.delimiter == 0 && !bytes.empty();
    const Clock::time_point frame_end = is_frame_open ? last_activity_ + end_silence : until;
    const LineEvent event = TakeInput(device, is_damaged, std::min(frame_end, until));
    if (event == LineEvent::kGone) {
      return VLM_RS485_PORT_GONE;
    }
    // An answer without a delimiter that begins with another address is another device's late one.
    const bool is_end = event == LineEvent::kReady ? EndsWithDelimiter(device)
                                                   : is_frame_open && frame_end <= until &&
                                                         bytes.front() == device.frame.front();
    if (is_end) {
      return is_damaged ? VLM_RS485_LINE_ERROR : VLM_RS485_ANSWERED;
    }
    if (bytes.size() > MAX_RECEIVE_DATA_LENGTH) {
      return VLM_RS485_TOO_LONG;
    }
    if (event == LineEvent::kTimeout) {
      if (frame_end >= until) {
        return VLM_RS485_NO_ANSWER;
      }
      bytes.clear();
      is_damaged = false;
    }
  }
}

}  // namespace rs485
