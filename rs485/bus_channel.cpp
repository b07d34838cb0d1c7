#include "bus_channel.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <optional>

#include "port_settings.h"

namespace rs485 {

namespace {

constexpr unsigned int kAllFlags = (1u << RS485_MAX_MC_NUM) - 1;

// A serial-over-Ethernet server, a radio or a busy device may pause so long within an answer.
constexpr std::chrono::milliseconds kPauseWithinAnswer{100};

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

/// Opens the device as the environment says now.
bool BusChannel::OpenLine() {
  const std::optional<PortSettings> settings = ReadPortSettings(channel_);
  if (!settings) {
    errno = EINVAL;
    return false;
  }
  silence_ = settings->silence;
  is_echoing_ = settings->is_echoing;
  ChooseCapture(settings->capture);
  return line_.Open(*settings, *rate_);
}

/// Goes on with the capture of that name, or begins or ends one.
void BusChannel::ChooseCapture(const std::string& path) {
  if (path == (capture_ != nullptr ? capture_->Path() : std::string())) {
    return;
  }
  line_.SetCapture(nullptr);
  capture_.reset();
  try {
    capture_ = path.empty() ? nullptr : std::make_unique<BusCapture>(path);
  } catch (const std::exception&) {
    // For want of memory or threads: the bus is served without one.
  }
  line_.SetCapture(capture_.get());
}

int BusChannel::Open(unsigned char baud_code) {
  const BaudRate* rate = FindBaudRate(baud_code);
  if (rate == nullptr) {
    errno = EINVAL;
    return -1;
  }
  const Interruption interruption(*this);
  rate_ = rate;
  is_open_ = OpenLine();
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
    if (!is_open_) {
      errno = EBADF;
      return false;
    }
    // The device may be back since it was found gone.
    if (!line_.IsOpen() && !OpenLine()) {
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
    if (capture_ != nullptr) {
      capture_->EndCycle();
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
  device.received.clear();
  const unsigned char status = line_.IsOpen() && interruptions_ == 0
                                   ? Exchange(device)
                                   : static_cast<unsigned char>(VLM_RS485_PORT_GONE);
  if (status == VLM_RS485_PORT_GONE) {
    line_.Close();
  }
  device.answer = {static_cast<std::uint16_t>(device.received.size()), status,
                   device.received.data()};
}

/// One exchange with a device; returns its receive status.
unsigned char BusChannel::Exchange(Device& device) {
  Duration timeout = device.timeout;
  switch (KeepSilence(device, timeout)) {
    case LineEvent::kTimeout:
      return VLM_RS485_LINE_ERROR;
    case LineEvent::kGone:
      return VLM_RS485_PORT_GONE;
    case LineEvent::kReady:
      break;
  }
  // Not before the silence: until then a broadcast may still be on its way in the old format.
  if (!line_.SetFormat(*device.format)) {
    return VLM_RS485_PORT_GONE;
  }
  switch (Send(device, timeout)) {
    case LineEvent::kTimeout:
      return VLM_RS485_NO_ANSWER;
    case LineEvent::kGone:
      return VLM_RS485_PORT_GONE;
    case LineEvent::kReady:
      break;
  }
  return device.frame.front() == 0 ? static_cast<unsigned char>(VLM_RS485_ANSWERED)
                                   : Receive(device, timeout);
}

/// Discards input until the line has been silent for long enough to address the device. What it
/// has to wait longer because of that input is taken from the time-out, which bounds it.
LineEvent BusChannel::KeepSilence(const Device& device, Duration& timeout) {
  const Duration silence = Silence(device) + device.wait;
  Clock::time_point start = std::max(last_activity_ + silence, Clock::now() + device.wait);
  Clock::time_point quiet = start;
  while (true) {
    const Clock::time_point until = std::min(quiet, start + timeout);
    const LineEvent event = line_.WaitForInput(until);
    if (event == LineEvent::kGone) {
      return event;
    }
    if (event == LineEvent::kTimeout) {
      timeout -= quiet - start;
      return timeout >= Duration::zero() ? LineEvent::kReady : LineEvent::kTimeout;
    }
    if (line_.Read().event == LineEvent::kGone) {
      return LineEvent::kGone;
    }
    const Clock::time_point now = Clock::now();
    last_activity_ = std::max(last_activity_, now);  // a broadcast may still be on its way
    quiet = std::max(quiet, now + silence);
    // Time for which this process was not scheduled is no fault of the line's.
    start += std::max(now - until, Clock::duration::zero());
  }
}

LineEvent BusChannel::Send(const Device& device, Duration timeout) {
  const Duration frame_time =
      CharacterTime(*rate_, *device.format) * static_cast<long>(device.frame.size());
  return line_.Send(device.frame, frame_time, timeout, last_activity_);
}

/// Silence that separates the device's frame from the one before.
BusChannel::Duration BusChannel::Silence(const Device& device) const {
  return InterFrameSilence(*rate_, *device.format, silence_);
}

/// Silence that ends the device's answer as far as it has come.
BusChannel::Duration BusChannel::AnswerSilence(const Device& device,
                                               const AnswerReader& reader) const {
  if (device.delimiter == 0 && device.after_delimiter != 0) {
    return std::max<Duration>(Silence(device), std::chrono::milliseconds(device.after_delimiter));
  }
  const Duration silence = EndSilence(*rate_, *device.format);
  return reader.IsIncomplete() ? std::max<Duration>(silence, kPauseWithinAnswer) : silence;
}

/// Hands what has arrived to the reader, up to the end of the answer.
LineEvent BusChannel::TakeInput(AnswerReader& reader, bool& is_whole) {
  const SerialLine::Input input = line_.Read();
  if (input.event == LineEvent::kReady) {
    last_activity_ = Clock::now();
    is_whole =
        std::any_of(input.characters, input.characters + input.count,
                    [&](const Character& next) { return reader.Add(next.byte, next.is_damaged); });
  }
  return input.event;
}

/// Hands all that is there to the reader. True when the answer is whole with it.
bool BusChannel::TakeAllInput(AnswerReader& reader) {
  bool is_whole = false;
  while (!is_whole && !reader.IsTooLong() && TakeInput(reader, is_whole) == LineEvent::kReady) {
  }
  return is_whole;
}

/// Receives the device's answer; returns its receive status.
unsigned char BusChannel::Receive(Device& device, Duration timeout) {
  AnswerReader reader(device.frame, device.delimiter, device.after_delimiter, is_echoing_);
  const LineEvent event = Listen(device, reader, last_activity_ + timeout);
  is_echoing_ = is_echoing_ || reader.HasHeardEcho();
  if (event == LineEvent::kGone) {
    return VLM_RS485_PORT_GONE;
  }
  if (reader.IsTooLong()) {
    return VLM_RS485_TOO_LONG;
  }
  if (event == LineEvent::kTimeout) {
    return reader.HasHeardOthersOnly() ? VLM_RS485_NOT_ITS_ANSWER : VLM_RS485_NO_ANSWER;
  }
  if (reader.IsDamaged()) {
    return VLM_RS485_LINE_ERROR;
  }
  device.received = reader.Answer();
  return VLM_RS485_ANSWERED;
}

/// Listens until the answer is whole (kReady) or can be none any more. What has come by the
/// time-out counts however late this process looks, and what is open then may still end in the
/// silence behind it.
LineEvent BusChannel::Listen(const Device& device, AnswerReader& reader, Clock::time_point until) {
  bool is_timed_out = false;
  bool is_whole = false;
  while (!is_whole && !reader.IsTooLong()) {
    const Clock::time_point now = Clock::now();
    if (!is_timed_out && now >= until) {
      is_timed_out = true;
      is_whole = TakeAllInput(reader);
      until = Clock::now();
      continue;
    }
    const Duration silence = AnswerSilence(device, reader);
    const bool waits_for_silence = reader.IsOpen() && (is_timed_out || device.delimiter == 0);
    const Clock::time_point end = is_timed_out ? until + silence : until;
    const Clock::time_point silent = waits_for_silence ? last_activity_ + silence
                                     : is_timed_out    ? now
                                                       : end;
    LineEvent event = line_.WaitForInput(std::min(silent, end));
    if (event == LineEvent::kReady) {
      event = TakeInput(reader, is_whole);
    } else if (event == LineEvent::kTimeout) {
      is_whole = waits_for_silence && silent <= end && reader.AddSilence();
      if (is_timed_out && !is_whole) {
        return LineEvent::kTimeout;
      }
    }
    if (event == LineEvent::kGone) {
      return event;
    }
  }
  return LineEvent::kReady;
}

}  // namespace rs485
