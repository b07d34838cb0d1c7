// The serial-port library over pseudo-terminals: the library has the slave's side, the test plays
// the devices on the master's.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "modbus/rtu_frame.h"
#include "support/files.h"
#include "support/wait.h"
#include "vlm_rs485.h"

namespace {

using tmsc::test::kSlackMs;
using tmsc::test::SleepMs;
using tmsc::test::Stopwatch;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// A pseudo-terminal takes any speed, but not every format: what the library asks of it, and when.
std::atomic<tcflag_t> asked_format{0};
std::atomic<speed_t> asked_speed{0};
std::atomic<Clock::time_point> asked_at{};
std::atomic<int> refusal{0};  // an errno

}  // namespace

/// Stands in front of the system's function for the library, too.
extern "C" int tcsetattr(int descriptor, int when, const termios* line) noexcept {
  static const auto set = reinterpret_cast<decltype(&tcsetattr)>(::dlsym(RTLD_NEXT, "tcsetattr"));
  asked_format = line->c_cflag & (CSIZE | PARENB | PARODD | CSTOPB);
  asked_speed = ::cfgetospeed(line);
  asked_at = Clock::now();
  errno = refusal;
  return refusal != 0 ? -1 : set(descriptor, when, line);
}

namespace {

/// What a device does: bytes, each after a pause.
struct Step {
  int pause_ms;
  Bytes bytes;
};

constexpr std::size_t kFrame = 8;  // bytes of a test's frame to a device
constexpr std::size_t kBroadcast = 64;

/// The field's end of a channel. A script answers each frame on a thread of its own.
class Field {
 public:
  using Script = std::function<void(Field& field, const Bytes& frame)>;

  Field(int channel, Script script) : script_(std::move(script)) {
    ::setenv(("RS485_PORT_" + std::to_string(channel)).c_str(), folder_.Path("port").c_str(), 1);
    PlugIn();
  }
  ~Field() { PullOut(); }

  void PlugIn() {
    ASSERT_EQ(::openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
    std::filesystem::remove(folder_.Path("port"));
    std::filesystem::create_symlink(::ttyname(slave_), folder_.Path("port"));
    is_ended_ = false;
    thread_ = std::thread([this] { Run(); });
  }
  void PullOut() {
    if (thread_.joinable()) {
      is_ended_ = true;
      thread_.join();
      ::close(master_);
      ::close(slave_);
    }
  }
  void Play(const std::vector<Step>& steps) {
    for (auto step = steps.begin(); step != steps.end() && !is_ended_; ++step) {
      SleepMs(step->pause_ms);
      last_sent_ = Clock::now();
      EXPECT_EQ(::write(master_, step->bytes.data(), step->bytes.size()),
                static_cast<ssize_t>(step->bytes.size()));
    }
  }
  /// From now on the test's bytes may be error marks: the driver doubles no 0xff any more.
  void PassMarks() const {
    termios line{};
    ASSERT_EQ(::tcgetattr(slave_, &line), 0);
    EXPECT_EQ(line.c_iflag & (PARMRK | INPCK | IGNPAR), tcflag_t{PARMRK | INPCK});
    line.c_iflag &= ~tcflag_t{PARMRK | INPCK};
    ASSERT_EQ(::tcsetattr(slave_, TCSANOW, &line), 0);
  }

  /// Valid after PullOut.
  Clock::duration shortest_gap = Clock::duration::max();  // from an answer to the next frame

 private:
  void Run() {
    while (!is_ended_) {
      pollfd entry{master_, POLLIN, 0};
      unsigned char buffer[256];
      const ssize_t count = ::poll(&entry, 1, 5) == 1 ? ::read(master_, buffer, sizeof(buffer)) : 0;
      shortest_gap = count > 0 ? std::min(shortest_gap, Clock::now() - last_sent_) : shortest_gap;
      for (const unsigned char *at = buffer, *end = buffer + count; at < end && script_;) {
        const Bytes frame(at, at + (*at == 0 ? kBroadcast : kFrame));
        at += frame.size();
        script_(*this, frame);
      }
    }
  }

  tmsc::test::TempFolder folder_;
  Script script_;
  int master_ = -1;
  int slave_ = -1;  // keeps the master usable while the library has the port closed
  std::atomic<bool> is_ended_{false};
  Clock::time_point last_sent_;
  std::thread thread_;
};

Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// A Modbus RTU frame to a device, and its answer.
Bytes Ask(int address) {
  return modbus::RtuFrame(address, {3, 0, 0, 0, 1});
}
Bytes Told(int address) {
  return modbus::RtuFrame(address, {3, 2, 0x12, 0x34});
}
/// A frame in another framing.
const Bytes kOtherFraming = {1, 3, 0, 0, 0, 1, 0, 0};

struct Parameters {
  int timeout_ms = 500;
  int delimiter = 0;
  int after = 0;
  int wait_ms = 0;
  int format = VLM_RS485_8N1;
};

/// Has the cycle serve a device.
void Add(int channel, int address, Bytes frame, const Parameters& device = {}) {
  const auto byte = [](int value) { return static_cast<unsigned char>(value); };
  xfer_data data{static_cast<std::uint16_t>(frame.size()), frame.data()};
  ASSERT_EQ(vlm_rs485_setPortParams(channel, byte(address), byte(device.format),
                                    static_cast<short>(device.timeout_ms), byte(device.delimiter),
                                    byte(device.after), byte(device.wait_ms)),
            0);
  ASSERT_EQ(vlm_rs485_putOutputStream(channel, byte(address), &data), 1);
}

/// Runs a cycle and returns how many ms it took.
int RunCycle(int channel, unsigned int flags) {
  EXPECT_EQ(vlm_rs485_setComFlags(channel, flags), 1);
  const Stopwatch time;
  EXPECT_EQ(vlm_rs485_startCom(channel), 1);
  return time.Ms();
}

using Outcome = std::pair<int, Bytes>;
const Outcome kNone = {VLM_RS485_NO_ANSWER, {}};

/// Status and bytes of a device's answer.
Outcome Answer(int channel, int address) {
  const receive_data_full* answers = vlm_rs485_getReceiveStream(channel, 0);
  const receive_data* answer = answers == nullptr ? nullptr : answers->rcv_dt[address - 1];
  if (answer == nullptr) {
    return {-1, {}};
  }
  return {answer->rcv_status, Bytes(answer->rcv_da, answer->rcv_da + answer->rcv_da_len)};
}

/// What follows from what comes after a frame to device 1, and the least it takes.
struct Case {
  const char* name;
  std::vector<Step> steps;
  Outcome outcome;
  Parameters device = {};
  int least_ms = 0;
  int baud = VLM_RS485_BAUD_115200;
};

void Check(const Bytes& frame, const Case& c, bool has_marks = false) {
  SCOPED_TRACE(c.name);
  Field field(1, [&](Field& f, const Bytes&) { f.Play(c.steps); });
  ASSERT_EQ(vlm_rs485_open(1, false, static_cast<unsigned char>(c.baud)), 0);
  if (has_marks) {
    field.PassMarks();
  }
  Add(1, 1, frame, c.device);
  const int took_ms = RunCycle(1, 1);
  EXPECT_GE(took_ms, c.least_ms);
  EXPECT_LE(took_ms, c.device.timeout_ms + 255 + kSlackMs);
  EXPECT_EQ(Answer(1, 1), c.outcome);
  EXPECT_EQ(Answer(1, 2).first, -1) << "not in the cycle";
  EXPECT_EQ(vlm_rs485_close(1), 0);
}

TEST(SerialLibraryTest, AModbusAnswerIsFoundInWhatIsHeard) {
  const Bytes own = Told(1);
  const Bytes other = Told(9);
  const Bytes damaged = {1, 3, 2, 0x12, 0x34, 0, 0};
  const Bytes exception = modbus::RtuFrame(1, {0x83, 2});
  const Bytes other_function = modbus::RtuFrame(1, {4, 2, 0, 1});
  const Bytes nested = modbus::RtuFrame(1, Bytes{3, 8} + own + Bytes{0});
  const Bytes unknown_function = modbus::RtuFrame(1, {0x41, 7});
  const Bytes noise(300, 9);
  const Case cases[] = {
      {"in blocks of a FIFO",
       {{0, {1, 3, 2}}, {80, Bytes(own.begin() + 3, own.end())}},
       {0, own},
       {},
       80,
       VLM_RS485_BAUD_1200},
      {"another's late one behind it", {{0, own + other}}, {0, own}},
      {"two late ones before it", {{0, Told(8) + other + own}}, {0, own}},
      {"noise before it", {{0, Bytes{0x55} + own}}, {0, own}},
      {"noise like its address before it", {{0, Bytes{1} + own}}, {0, own}},
      {"an exception, noise behind it", {{0, exception + Bytes{0xff}}}, {0, exception}},
      {"a frame within it", {{0, nested}}, {0, nested}},
      {"of no known length", {{0, unknown_function}}, {0, unknown_function}},
      {"damaged, two late ones behind it", {{0, damaged + other + Told(8)}}, {0, damaged}},
      {"only another's", {{0, other}}, {VLM_RS485_NOT_ITS_ANSWER, other}, {}, 500},
      {"no answer to this frame",
       {{0, Bytes{0x55} + other_function}},
       {VLM_RS485_NOT_ITS_ANSWER, Bytes{0x55} + other_function}},
      {"only the first 436 bytes of noise",
       {{0, noise}, {250, noise}},
       {VLM_RS485_NOT_ITS_ANSWER, Bytes(436, 9)},
       {600, 0, 100}},
  };
  for (const Case& c : cases) {
    Check(Ask(1), c);
  }
}

TEST(SerialLibraryTest, AnswersInOtherFramingsEndWithSilence) {
  Bytes longest(436, 0xff);  // 0xff is also what marks an error in the driver's input
  longest[0] = 1;
  const Case cases[] = {
      // Longer than an adapter's packet.
      {"at once", {{0, {1, 2, 0, 0xff, 0}}}, {0, {1, 2, 0, 0xff, 0}}, {}, 17},
      {"late but in time", {{200, {1, 2}}}, {0, {1, 2}}, {}, 200},
      // Longer than a FIFO of 16 characters.
      {"in blocks of a FIFO",
       {{0, {1, 2}}, {80, {3}}},
       {0, {1, 2, 3}},
       {},
       80 + 133,
       VLM_RS485_BAUD_1200},
      {"in dribbles", {{0, {1}}, {100, {2}}, {100, {3}}}, {0, {1, 2, 3}}, {500, 0, 255}, 455},
      {"another's first, with a shorter silence",
       {{0, {9, 9}}, {120, {1, 2}}},
       {0, {1, 2}},
       {500, 0, 40},
       160,
       VLM_RS485_BAUD_1200},
      {"never less than 3.5 characters", {{0, {1}}}, {0, {1}}, {500, 0, 1}, 29, 0},
      {"open at the time-out", {{300, {1, 2}}}, {0, {1, 2}}, {500, 0, 255}, 555},
      {"still coming after that", std::vector<Step>(30, {100, {1}}), kNone, {500, 0, 255}, 755},
      {"silent", {}, kNone, {}, 500},
      {"longest", {{0, longest}}, {0, longest}},
      {"too long", {{0, longest + Bytes{1}}}, {VLM_RS485_TOO_LONG, {}}},
      {"two bytes behind a delimiter",
       {{0, {7, 8}}, {100, {13, 5}}, {100, {6, 99}}},
       {0, {7, 8, 13, 5, 6}},
       {500, 13, 2}},
      {"delimiter missing", {{0, {7, 8, 13, 5}}}, kNone, {500, 13, 2}, 500},
  };
  for (const Case& c : cases) {
    Check(kOtherFraming, c);
  }
}

TEST(SerialLibraryTest, DamageIsNoAnswer) {
  const Parameters slow = {500, 0, 255};
  const Case cases[] = {
      {"a byte", {{0, {1, 2, 0xff, 0, 3, 4}}}, {VLM_RS485_LINE_ERROR, {}}},
      {"in two reads", {{0, {1, 2, 0xff}}, {100, {0, 3}}}, {VLM_RS485_LINE_ERROR, {}}, slow},
      {"none", {{0, {1, 0xff, 0xff, 0, 3}}}, {0, {1, 0xff, 0, 3}}},
      {"another's", {{0, {9, 0xff, 0, 3}}, {100, {1}}}, {0, {1}}, {500, 0, 40}},
  };
  for (const Case& c : cases) {
    Check(kOtherFraming, c, true);
  }
  Check(Ask(1), {"before the answer", {{0, Bytes{0xff, 0, 0} + Told(1)}}, {0, Told(1)}}, true);
}

TEST(SerialLibraryTest, LateAnswersLandInNoOtherSlot) {
  Field field(1, [](Field& f, const Bytes& frame) {
    // Device 1 has 500 ms: its answer and the next one's arrive in the time of device 31.
    f.Play({{frame[0] == 1 ? 1100 : 0, Told(frame[0])}});
  });
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_115200), 0);
  Add(1, 1, Ask(1));
  Add(1, 2, Ask(2));
  Add(1, 31, Ask(31), {2000});
  RunCycle(1, 1u << 30 | 3);
  EXPECT_EQ(Answer(1, 1), kNone);
  EXPECT_EQ(Answer(1, 2), kNone);
  EXPECT_EQ(Answer(1, 31), (Outcome{0, Told(31)}));
  RunCycle(1, 3);
  EXPECT_EQ(Answer(1, 1).first, -1) << "frames and flags are used up";
  vlm_rs485_close(1);
}

std::atomic<int> stops{0};

TEST(SerialLibraryTest, AStoppedProcessMissesNothing) {
  std::signal(SIGUSR1, [](int) {
    ++stops;
    ::sleep(1);  // longer than a device's time-out
  });
  const pthread_t library = ::pthread_self();
  Field field(1, [&](Field& f, const Bytes& frame) {
    const int stop = stops + 1;
    if (frame[0] <= 1) {  // the broadcast's silence is kept, or the answer is waited for
      ::pthread_kill(library, SIGUSR1);
      EXPECT_TRUE(tmsc::test::WaitFor(1000, [&] { return stops == stop; }));
    }
    if (frame[0] > 0) {
      f.Play({{100, Told(frame[0])}});
    }
  });
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_1200), 0);
  Add(1, 1, Ask(1));
  Add(1, 2, Bytes(kBroadcast, 0));
  Add(1, 3, Ask(3));
  RunCycle(1, 7);
  EXPECT_EQ(stops, 2);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
  EXPECT_EQ(Answer(1, 3), (Outcome{0, Told(3)}));
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, TheLineIsSilentBeforeEachFrame) {
  Clock::time_point broadcast_at;
  Field field(2, [&](Field& f, const Bytes& frame) {
    if (frame[0] == 0) {
      broadcast_at = Clock::now();
    } else {
      f.Play({{0, Told(frame[0])}});
    }
  });
  ASSERT_EQ(vlm_rs485_open(2, false, VLM_RS485_BAUD_1200), 0);
  for (int address = 1; address <= 4; ++address) {
    Add(2, address, Ask(address));
  }
  Add(2, 5, Bytes(kBroadcast, 0));
  Add(2, 6, Ask(6), {500, 0, 0, 200, VLM_RS485_8N2});
  const int took_ms = RunCycle(2, 0x3f);
  EXPECT_EQ(Answer(2, 5), (Outcome{0, {}}));
  EXPECT_EQ(Answer(2, 6), (Outcome{0, Told(6)}));
  vlm_rs485_close(2);
  field.PullOut();  // ends its thread, which measured
  // 3.5 characters of 10 bits at 1200 bits a second.
  EXPECT_GE(field.shortest_gap, std::chrono::microseconds(29166));
  // Four such silences, the broadcast's 640 bits, a silence of 11-bit characters, the wait.
  EXPECT_GE(took_ms, 4 * 29 + 533 + 32 + 200);
  EXPECT_GE(asked_at.load() - broadcast_at, std::chrono::milliseconds(300))
      << "the format changed while the broadcast was sent";
}

TEST(SerialLibraryTest, SpeedsAndFormatsAreThoseOfTheCodes) {
  const Field field(1, {});
  const speed_t speeds[] = {B1200,  B2400,   B4800,   B9600,   B19200, B38400,
                            B57600, B115200, B230400, B460800, B921600};
  for (std::size_t code = 0; code < std::size(speeds); ++code) {
    EXPECT_EQ(vlm_rs485_open(1, false, static_cast<unsigned char>(code)), 0);
    EXPECT_EQ(asked_speed, speeds[code]) << code;
  }
  int code = 0;
  for (const std::string format :
       {"8N1", "8E1", "8O1", "8N2", "8E2", "8O2", "7N1", "7E1", "7O1", "7N2", "7E2", "7O2"}) {
    const bool has_parity = format[1] != 'N';
    const tcflag_t flags = (format[0] == '8' ? CS8 : CS7) | (has_parity ? PARENB : 0u) |
                           (format[1] == 'O' ? PARODD : 0u) | (format[2] == '2' ? CSTOPB : 0u);
    const int bits = 1 + (format[0] - '0') + (has_parity ? 1 : 0) + (format[2] - '0');
    const Stopwatch time;
    ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_1200), 0);
    Add(1, 1, Ask(1), {1, 0, 0, 0, code++});
    RunCycle(1, 1);
    EXPECT_GE(time.Ms(), (35 + 80) * bits / 12) << format << ": silence and frame";
    EXPECT_EQ(asked_format, flags) << format;
  }
  refusal = EIO;
  Add(1, 1, Ask(1));
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}})) << "the port refuses the format";
  refusal = 0;
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, WhatCannotBeIsRefused) {
  Field field(1, {});
  Bytes bytes(65, 1);
  xfer_data good{64, bytes.data()};
  EXPECT_EQ(vlm_rs485_startCom(1), 0) << "not open";
  EXPECT_EQ(vlm_rs485_putOutputStream(1, 1, &good), 0);
  EXPECT_EQ(vlm_rs485_setComFlags(1, 1), 0);
  EXPECT_EQ(vlm_rs485_getReceiveStream(3, 0), nullptr);
  EXPECT_NE(vlm_rs485_open(1, false, 11), 0);
  EXPECT_NE(vlm_rs485_open(1, true, VLM_RS485_BAUD_115200), 0);
  for (const int channel : {0, 4, -1}) {
    EXPECT_NE(vlm_rs485_open(channel, false, VLM_RS485_BAUD_115200), 0);
    EXPECT_NE(vlm_rs485_close(channel), 0);
    EXPECT_EQ(vlm_rs485_startCom(channel), 0);
  }
  ::setenv("RS485_PORT_3", "/dev/null", 1);
  EXPECT_NE(vlm_rs485_open(3, false, VLM_RS485_BAUD_115200), 0) << "no serial device";
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_115200), 0);
  EXPECT_EQ(vlm_rs485_putOutputStream(1, 31, &good), 1);
  for (const int address : {0, 32}) {
    EXPECT_EQ(vlm_rs485_putOutputStream(1, static_cast<unsigned char>(address), &good), 0);
    EXPECT_NE(vlm_rs485_setPortParams(1, static_cast<unsigned char>(address), 0, 1, 0, 0, 0), 0);
  }
  EXPECT_NE(vlm_rs485_setPortParams(1, 1, 12, 1, 0, 0, 0), 0);
  for (const int length : {0, 65}) {
    xfer_data bad{static_cast<std::uint16_t>(length), bytes.data()};
    EXPECT_EQ(vlm_rs485_putOutputStream(1, 1, &bad), 0);
  }
  EXPECT_EQ(vlm_rs485_setComFlags(1, 1u << 31), 0);
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, ACloseEndsTheCycleAtOnce) {
  const Field field(1, {});
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_115200), 0);
  for (int address = 1; address <= 31; ++address) {
    Add(1, address, Ask(address), {2000});
  }
  vlm_rs485_setComFlags(1, 0x7fffffff);
  std::future<unsigned char> cycle =
      std::async(std::launch::async, [] { return vlm_rs485_startCom(1); });
  SleepMs(50);
  const Stopwatch time;
  vlm_rs485_close(1);
  ASSERT_EQ(cycle.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_LE(time.Ms(), kSlackMs);
  EXPECT_EQ(Answer(1, 31), (Outcome{VLM_RS485_PORT_GONE, {}}));
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
}

TEST(SerialLibraryTest, APulledAdapterIsNoticedAndFoundAgain) {
  Field field(1, [](Field& f, const Bytes& frame) { f.Play({{0, Told(frame[0])}}); });
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_115200), 0);
  Add(1, 1, Ask(1));
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
  field.PullOut();
  Add(1, 1, Ask(1), {2000});
  Add(1, 2, Ask(2), {2000});
  EXPECT_LE(RunCycle(1, 3), kSlackMs);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}}));
  EXPECT_EQ(Answer(1, 2), (Outcome{VLM_RS485_PORT_GONE, {}}));
  Add(1, 1, Ask(1));
  vlm_rs485_setComFlags(1, 1);
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
  field.PlugIn();
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, ANoisyLineHoldsADeviceForItsTimeOnly) {
  std::atomic<bool> is_ended{false};
  Field field(1, {});
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_1200), 0);
  std::thread noise([&] {
    while (!is_ended) {
      field.Play({{2, {0x55}}});
    }
  });
  SleepMs(20);
  Add(1, 1, Ask(1), {500, 0, 0, 255});
  EXPECT_LE(RunCycle(1, 1), 500 + 255 + 29 + kSlackMs);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_LINE_ERROR, {}}));
  is_ended = true;
  noise.join();
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, ChannelsRunAtTheSameTime) {
  const auto answer = [](Field& f, const Bytes& frame) { f.Play({{0, Told(frame[0])}}); };
  Field fields[] = {{1, answer}, {2, answer}, {3, answer}};
  std::vector<std::thread> channels;
  std::atomic<int> answered{0};
  for (int channel = 1; channel <= 3; ++channel) {
    channels.emplace_back([&answered, channel] {
      ASSERT_EQ(vlm_rs485_open(channel, false, VLM_RS485_BAUD_115200), 0);
      for (int address = 1; address <= 31; ++address) {
        Add(channel, address, Ask(address), {500, 0, 255});
      }
      EXPECT_LE(RunCycle(channel, 0x7fffffff), 31 * 100) << "no answer waits for its silence";
      for (int address = 1; address <= 31; ++address) {
        answered += Answer(channel, address) == Outcome{0, Told(address)} ? 1 : 0;
      }
      vlm_rs485_close(channel);
    });
  }
  for (std::thread& channel : channels) {
    channel.join();
  }
  EXPECT_EQ(answered, 3 * 31);
}

}  // namespace
