#include "serial_line.h"

#include <fcntl.h>
#include <linux/serial.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "vlm_rs485.h"

namespace rs485 {

namespace {

// How often a device is asked whether it has sent a frame whose time is over: after so long, and
// after an eighth of what it has taken since.
constexpr std::chrono::microseconds kShortestSentPoll{100};

/// Has the waits of the calling thread end when they are due, and not up to 50 us later, together
/// with other timers: from the first call on, for good.
void WaitExactly() {
  [[maybe_unused]] static thread_local const int result = ::prctl(PR_SET_TIMERSLACK, 1ul);
}

/// ppoll(2) of the kernel, since a line's silences are no whole milliseconds. Not that of the C
/// library: on 32 bit its fortified form hands a time of 64 bits to the function for 32 bits.
int Poll(pollfd* entries, std::size_t count, Clock::duration limit) {
  const auto left = std::max(limit, Clock::duration::zero());
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
  struct {
    long seconds;
    long nanoseconds;
  } timeout = {static_cast<long>(seconds.count()),
               static_cast<long>(std::chrono::nanoseconds(left - seconds).count())};
  WaitExactly();
  return static_cast<int>(::syscall(SYS_ppoll, entries, count, &timeout, nullptr, 0));
}

}  // namespace

SerialLine::SerialLine() : interrupt_event_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

SerialLine::~SerialLine() {
  Close();
  ::close(interrupt_event_);
}

bool SerialLine::Open(const PortSettings& settings, const BaudRate& rate) {
  Close();
  rate_ = &rate;
  descriptor_ = ::open(settings.device.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
  if (descriptor_ < 0) {
    return false;
  }
  if (!Configure(settings, rate) || !direction_.Prepare(descriptor_, settings.direction)) {
    const int error = errno;
    Close();
    errno = error;
    return false;
  }
  ChooseLowLatency();
  return true;
}

bool SerialLine::Configure(const PortSettings& settings, const BaudRate& rate) {
  termios line{};
  if (::tcgetattr(descriptor_, &line) != 0) {
    return false;
  }
  ::cfmakeraw(&line);
  // Errors are marked in the input as 0xff 0x00 and the byte, a byte 0xff as 0xff 0xff.
  line.c_iflag |= INPCK | PARMRK;
  line.c_iflag &= ~static_cast<tcflag_t>(IGNPAR | IGNBRK | BRKINT | IXOFF | IXANY);
  line.c_cflag |= CLOCAL | CREAD;
  line.c_cflag &= ~static_cast<tcflag_t>(CRTSCTS);
  if (!settings.direction.is_rts_on_to_send) {
    line.c_cflag &= ~static_cast<tcflag_t>(HUPCL);  // a closed port does not drop RTS and so drive
  }
  line.c_cc[VMIN] = 0;
  line.c_cc[VTIME] = 0;
  format_ = nullptr;
  mark_length_ = 0;
  return ::cfsetspeed(&line, rate.termios_speed) == 0 &&
         ::tcsetattr(descriptor_, TCSANOW, &line) == 0;
}

/// Where the driver has it.
void SerialLine::ChooseLowLatency() {
  serial_struct device{};
  if (::ioctl(descriptor_, TIOCGSERIAL, &device) == 0) {
    device.flags |= ASYNC_LOW_LATENCY;
    ::ioctl(descriptor_, TIOCSSERIAL, &device);
  }
}

void SerialLine::Close() {
  if (descriptor_ >= 0) {
    ::close(descriptor_);
    descriptor_ = -1;
  }
}

bool SerialLine::SetFormat(const CharacterFormat& format) {
  if (format_ == &format) {
    return true;
  }
  termios line{};
  if (::tcgetattr(descriptor_, &line) != 0) {
    return false;
  }
  line.c_cflag &= ~static_cast<tcflag_t>(CSIZE | PARENB | PARODD | CSTOPB);
  line.c_cflag |= format.termios_flags;
  // EINVAL: a device without that format, such as a pseudo-terminal, keeps what it has.
  if (::tcsetattr(descriptor_, TCSANOW, &line) != 0 && errno != EINVAL) {
    return false;
  }
  format_ = &format;
  return true;
}

LineEvent SerialLine::WaitForInput(Clock::time_point until) {
  return Wait(POLLIN, until);
}

LineEvent SerialLine::Wait(short events, Clock::time_point until) {
  while (true) {
    pollfd entries[] = {{descriptor_, events, 0}, {interrupt_event_, POLLIN, 0}};
    const int ready = Poll(entries, std::size(entries), until - Clock::now());
    if (ready < 0 && errno == EINTR) {
      continue;
    }
    if (ready == 0) {
      return LineEvent::kTimeout;
    }
    // A hang-up with input left is found by the read behind the last byte.
    return ready > 0 && entries[1].revents == 0 && (entries[0].revents & events) != 0
               ? LineEvent::kReady
               : LineEvent::kGone;
  }
}

/// Waits for nothing but the moment: kTimeout, unless the device is gone before it.
LineEvent SerialLine::Pause(Clock::time_point until) {
  return until > Clock::now() ? Wait(0, until) : LineEvent::kTimeout;
}

/// Writes the whole frame.
LineEvent SerialLine::Write(const std::vector<unsigned char>& frame, Clock::time_point until) {
  const std::int64_t begin = capture_ != nullptr ? BusCapture::Now() : 0;
  std::size_t count = 0;
  while (true) {
    const ssize_t written = ::write(descriptor_, frame.data() + count, frame.size() - count);
    if (written < 0 && errno != EAGAIN && errno != EINTR) {
      return LineEvent::kGone;
    }
    count += static_cast<std::size_t>(std::max<ssize_t>(written, 0));
    if (count == frame.size()) {
      break;
    }
    const LineEvent event = Wait(POLLOUT, until);
    if (event != LineEvent::kReady) {
      return event;
    }
  }
  if (capture_ != nullptr) {
    capture_->AddSent(frame, begin);
  }
  return LineEvent::kReady;
}

LineEvent SerialLine::Send(const std::vector<unsigned char>& frame, Clock::duration line_time,
                           Clock::duration limit, Clock::time_point& last_bit) {
  if (direction_.IsByLibrary()) {
    return SendByHand(frame, line_time, limit, last_bit);
  }
  const LineEvent event = Write(frame, Clock::now() + line_time + limit);
  // The driver has the frame, the line carries it from now on.
  last_bit = Clock::now() + direction_.DelayBefore() + line_time;
  return event;
}

/// Drives the line as long as it lives.
class SerialLine::Driving {
 public:
  explicit Driving(const DirectionSwitch& direction) : direction_(direction) {
    direction_.Drive(true);
  }
  ~Driving() { direction_.Drive(false); }
  Driving(const Driving&) = delete;
  Driving& operator=(const Driving&) = delete;

 private:
  const DirectionSwitch& direction_;
};

/// Sends while this library switches the direction: nobody else lets go of the line.
LineEvent SerialLine::SendByHand(const std::vector<unsigned char>& frame, Clock::duration line_time,
                                 Clock::duration limit, Clock::time_point& last_bit) {
  const Driving driving(direction_);
  LineEvent event = Pause(Clock::now() + direction_.DelayBefore());
  const Clock::time_point until = Clock::now() + line_time + limit;
  if (event == LineEvent::kTimeout) {
    event = Write(frame, until);
  }
  last_bit = Clock::now() + line_time;
  if (event == LineEvent::kReady) {
    event = WaitUntilSent(last_bit, until);
  }
  if (event == LineEvent::kReady && Pause(last_bit + direction_.DelayAfter()) == LineEvent::kGone) {
    event = LineEvent::kGone;
  }
  return event;
}

/// Waits until the frame's time on the line is over, and on until the device has sent it.
LineEvent SerialLine::WaitUntilSent(Clock::time_point& last_bit, Clock::time_point until) {
  const Clock::time_point due = last_bit;
  while (true) {
    if (Pause(last_bit) == LineEvent::kGone) {
      return LineEvent::kGone;
    }
    if (direction_.IsSent()) {
      return LineEvent::kReady;
    }
    if (last_bit >= until) {
      return LineEvent::kTimeout;
    }
    const Clock::time_point now = Clock::now();
    last_bit = std::min(now + std::max<Clock::duration>(kShortestSentPoll, (now - due) / 8), until);
  }
}

SerialLine::Input SerialLine::Read() {
  Input input;
  input.event = LineEvent::kReady;
  input.count = 0;
  unsigned char bytes[std::size(decltype(input.characters){})];
  const ssize_t count = ::read(descriptor_, bytes, sizeof(bytes));
  if (count <= 0) {
    // With VMIN 0 an idle device reads as 0 bytes, like one that hung up; only poll can tell.
    const bool is_gone = (count < 0 && errno != EAGAIN && errno != EINTR) ||
                         (count == 0 && Wait(POLLIN, Clock::now()) != LineEvent::kTimeout);
    input.event = is_gone ? LineEvent::kGone : LineEvent::kTimeout;
  }
  // Takes the error marks out. A mark may begin in one read and end in the next.
  for (ssize_t i = 0; i < count; ++i) {
    const unsigned char next = bytes[i];
    if (mark_length_ == 0 && next == 0xff) {
      mark_length_ = 1;
    } else if (mark_length_ == 1 && next == 0) {
      mark_length_ = 2;
    } else {
      input.characters[input.count++] = {next, mark_length_ == 2};
      mark_length_ = 0;
    }
  }
  if (capture_ != nullptr && input.count > 0) {
    Record(input);
  }
  return input;
}

void SerialLine::Record(const Input& input) {
  const CharacterFormat& format =
      format_ != nullptr ? *format_ : *FindCharacterFormat(VLM_RS485_8N1);
  capture_->SetLine(EndSilence(*rate_, format), (format.termios_flags & PARENB) != 0);
  const std::int64_t now = BusCapture::Now();
  std::for_each(input.characters, input.characters + input.count, [&](const Character& heard) {
    capture_->AddHeard(heard.byte, heard.is_damaged, now);
  });
}

void SerialLine::Interrupt() {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(interrupt_event_, &one, sizeof(one));
}

void SerialLine::Resume() {
  std::uint64_t count = 0;
  [[maybe_unused]] const ssize_t taken = ::read(interrupt_event_, &count, sizeof(count));
}

}  // namespace rs485
