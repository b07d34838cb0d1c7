// The serial-port library on the slave's side of pseudo-terminals; the test is the field.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pthread.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>

#include "modbus/rtu_frame.h"
#include "support/files.h"
#include "support/wait.h"
#include "vlm_rs485.h"

using tmsc::test::kSlackMs;
using tmsc::test::SleepMs;
using tmsc::test::Stopwatch;
using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

// A pseudo-terminal takes any speed, but not every format: what the library asks of it, and when.
static std::atomic<tcflag_t> asked_flags{0};
static std::atomic<Clock::time_point> asked_at{};
static std::atomic<int> refusal{0};  // an errno

/// Stands in front of the system's function for the library, too.
extern "C" int tcsetattr(int descriptor, int when, const termios* line) noexcept {
  static const auto set = reinterpret_cast<decltype(&tcsetattr)>(::dlsym(RTLD_NEXT, "tcsetattr"));
  asked_flags = line->c_cflag;
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

constexpr std::size_t kFrame = 8;       // bytes of a frame to a device
constexpr std::size_t kBroadcast = 64;  // bytes of one to all

/// A channel's open port, and the field's end of it: a thread that runs a script for each frame.
class Field {
 public:
  using Script = std::function<void(Field& field, const Bytes& frame)>;

  Field(int channel, Script script, unsigned char baud = VLM_RS485_BAUD_115200)
      : channel_(channel), script_(std::move(script)) {
    ::setenv(("RS485_PORT_" + std::to_string(channel)).c_str(), folder_.Path("port").c_str(), 1);
    PlugIn();
    EXPECT_EQ(vlm_rs485_open(channel, false, baud), 0);
  }
  ~Field() {
    EXPECT_EQ(vlm_rs485_close(channel_), 0);
    PullOut();
  }

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

  /// From an answer to the next frame; valid after PullOut.
  Clock::duration shortest_gap = Clock::duration::max();

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

  const int channel_;
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
void AnswerAtOnce(Field& field, const Bytes& frame) {
  const Bytes noise(frame[0] % 2, 0x55);  // in front of every other answer
  field.Play({{0, noise + Told(frame[0])}});
}

struct Parameters {
  short timeout_ms = 500;
  unsigned char delimiter = 0;
  unsigned char after = 0;
  unsigned char wait_ms = 0;
  unsigned char format = VLM_RS485_8N1;
};

/// Has the cycle serve a device.
void Add(int channel, unsigned char address, Bytes frame, const Parameters& device = {}) {
  xfer_data data{static_cast<std::uint16_t>(frame.size()), frame.data()};
  EXPECT_EQ(vlm_rs485_setPortParams(channel, address, device.format, device.timeout_ms,
                                    device.delimiter, device.after, device.wait_ms),
            0);
  EXPECT_EQ(vlm_rs485_putOutputStream(channel, address, &data), 1);
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
constexpr int kNotItsAnswer = VLM_RS485_NOT_ITS_ANSWER;
constexpr unsigned char k1200 = VLM_RS485_BAUD_1200;

/// Status and bytes of a device's answer.
Outcome Answer(int channel, int address) {
  const receive_data* answer = vlm_rs485_getReceiveStream(channel, 0)->rcv_dt[address - 1];
  return answer == nullptr
             ? Outcome{-1, {}}
             : Outcome{answer->rcv_status, {answer->rcv_da, answer->rcv_da + answer->rcv_da_len}};
}

/// What follows from what comes after a frame to device 1, and the least it takes from the open on.
struct Case {
  const char* name;
  std::vector<Step> steps;
  Outcome outcome;
  Parameters device = {};
  int least_ms = 0;
  unsigned char baud = VLM_RS485_BAUD_115200;
};

void Check(const Bytes& frame, const std::vector<Case>& cases, bool has_marks = false) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    const Stopwatch time;
    const auto play = [&](Field& f, const Bytes&) { f.Play(c.steps); };
    const Field field(1, play, c.baud);
    if (has_marks) {
      field.PassMarks();
    }
    Add(1, 1, frame, c.device);
    EXPECT_LE(RunCycle(1, 1), c.device.timeout_ms + 255 + 2 * kSlackMs);
    EXPECT_GE(time.Ms(), c.least_ms);
    EXPECT_EQ(Answer(1, 1), c.outcome);
  }
}

TEST(SerialLibraryTest, AnAnswerIsFoundInWhatIsHeard) {
  const Bytes own = Told(1);
  const Bytes other = Told(9);
  const Bytes damaged = {1, 3, 2, 0x12, 0x34, 0, 0};
  const Bytes exception = modbus::RtuFrame(1, {0x83, 2});
  const Bytes no_answer = Bytes{0x55} + modbus::RtuFrame(1, {4, 2, 0, 1});
  const Bytes nested = modbus::RtuFrame(1, Bytes{3, 8} + own + Bytes{0});
  const Bytes no_length = modbus::RtuFrame(1, {0x41, 7});
  const Bytes noise(300, 9);
  const Outcome error = {VLM_RS485_LINE_ERROR, {}};
  const std::vector<Step> blocks = {{0, {1, 3, 2}}, {40, Bytes(own.begin() + 3, own.end())}};
  Check(Ask(1),
        {{"in blocks of a FIFO", blocks, {0, own}, {}, 40, k1200},
         {"another's late one behind it", {{0, own + other}}, {0, own}},
         {"noise like its address before it", {{0, Bytes{1} + own}}, {0, own}},
         {"an exception, noise behind it", {{0, exception + Bytes{0x55}}}, {0, exception}},
         {"a frame within it", {{0, nested}}, {0, nested}},
         {"of no known length", {{0, no_length}}, {0, no_length}},
         {"damaged, two late ones behind it", {{0, damaged + other + Told(8)}}, {0, damaged}},
         {"only another's", {{0, other}}, {kNotItsAnswer, other}, {}, 500},
         {"another function's behind noise", {{0, no_answer}}, {kNotItsAnswer, no_answer}},
         {"noise", {{0, noise}, {250, noise}}, {kNotItsAnswer, Bytes(436, 9)}, {600, 0, 100}},
         {"an error in two reads", {{0, {1, 2, 0xff}}, {100, {0, 3}}}, error, {500, 0, 255}},
         {"another's error", {{0, {9, 0xff, 0, 3}}, {120, {1}}}, {0, {1}}, {500, 0, 40}},
         {"a break before it", {{0, Bytes{0xff, 0, 0} + own}}, {0, own}}},
        true);
}

TEST(SerialLibraryTest, AnswersInOtherFramingsEndWithSilence) {
  const Bytes longest = Bytes{1} + Bytes(435, 0xff);  // 0xff also marks errors in the input
  const Bytes text = {7, 8, 13, 5, 6};
  const std::vector<Step> dribbles(150, {20, {1}});
  Check({1, 3, 0, 0, 0, 1, 0, 0},
        {{"at once; no packet of 16 ms ends it", {{0, {1, 2, 0, 9}}}, {0, {1, 2, 0, 9}}, {}, 17},
         {"in blocks of 16", {{0, {1}}, {40, {2}}}, {0, {1, 2}}, {}, 40 + 133 + 29, k1200},
         {"in dribbles", {{0, {1}}, {50, {2}}, {50, {3}}}, {0, {1, 2, 3}}, {500, 0, 255}, 355},
         {"behind another's", {{0, {9}}, {120, {1}}}, {0, {1}}, {500, 0, 40}, 160 + 29, k1200},
         {"never less than 3.5 characters", {{0, {1}}}, {0, {1}}, {500, 0, 1}, 29 + 29, k1200},
         {"open at the time-out", {{250, {1, 2}}}, {0, {1, 2}}, {500, 0, 255}, 505},
         {"still coming after that", dribbles, kNone, {500, 0, 255}, 755},
         {"longest", {{0, longest}}, {0, longest}},
         {"too long", {{0, longest + Bytes{1}}}, {VLM_RS485_TOO_LONG, {}}},
         {"delimiter", {{0, {7, 8}}, {50, {13, 5}}, {50, {6, 99}}}, {0, text}, {900, 13, 2}},
         {"delimiter missing", {{0, {7, 8, 13, 5}}}, kNone, {500, 13, 2}, 500}});
}

TEST(SerialLibraryTest, LateAnswersLandInNoOtherSlot) {
  Field field(1, [](Field& f, const Bytes& frame) {
    // Device 1 has 500 ms: its answer and the next one's arrive in the time of device 31.
    f.Play({{frame[0] == 1 ? 1300 : 0, Told(frame[0])}});
  });
  Add(1, 1, Ask(1));
  Add(1, 2, Ask(2));
  Add(1, 31, Ask(31), {2000});
  static int calls = 0;
  vlm_rs485_addEventListener(1, [] { ++calls; });
  RunCycle(1, 1u << 30 | 3);
  vlm_rs485_removeEventListener(1);
  EXPECT_EQ(Answer(1, 1), kNone);
  EXPECT_EQ(Answer(1, 31), (Outcome{0, Told(31)}));
  RunCycle(1, 3);
  EXPECT_EQ(Answer(1, 1).first, -1) << "frames are used up";
  Add(1, 1, Ask(1));
  vlm_rs485_startCom(1);
  EXPECT_EQ(Answer(1, 1).first, -1) << "flags are used up";
  EXPECT_EQ(calls, 1);
}

std::atomic<int> stops{0};

TEST(SerialLibraryTest, AStoppedProcessMissesNothing) {
  std::signal(SIGUSR1, [](int) {
    ++stops;
    ::sleep(2);  // longer than a device's time-out
  });
  const auto stop_and_answer = [library = ::pthread_self()](Field& f, const Bytes& frame) {
    if (frame[0] <= 1) {  // the broadcast's silence is kept, or the answer is waited for
      ::pthread_kill(library, SIGUSR1);
    }
    SleepMs(100);
    AnswerAtOnce(f, frame);
  };
  const Field field(1, stop_and_answer, k1200);
  Add(1, 1, Ask(1), {1000});
  Add(1, 2, Bytes(kBroadcast, 0));
  Add(1, 3, Ask(3), {1000});
  RunCycle(1, 7);
  EXPECT_EQ(stops, 2);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
  EXPECT_EQ(Answer(1, 3), (Outcome{0, Told(3)}));
}

TEST(SerialLibraryTest, TheLineIsSilentBeforeEachFrame) {
  Field field(1, AnswerAtOnce, k1200);
  for (unsigned char address = 1; address <= 4; ++address) {
    Add(1, address, Ask(address));
  }
  Add(1, 5, Bytes(kBroadcast, 0));
  Add(1, 6, Ask(6), {500, 0, 0, 200, VLM_RS485_8N2});
  // Four silences of 10-bit characters, the broadcast, a silence of 11-bit ones, the wait.
  EXPECT_GE(RunCycle(1, 0x3f), 4 * 29 + 533 + 32 + 200);
  EXPECT_LE(Clock::now() - asked_at.load(), std::chrono::milliseconds(700))
      << "the format changed while the broadcast was sent";
  EXPECT_EQ(Answer(1, 5), (Outcome{0, {}}));
  EXPECT_EQ(Answer(1, 6), (Outcome{0, Told(6)}));
  field.PullOut();  // ends its thread, which measured
  EXPECT_GE(field.shortest_gap, std::chrono::microseconds(29166));
}

TEST(SerialLibraryTest, SpeedsAndFormatsAreThoseOfTheCodes) {
  const Field field(1, {});
  unsigned char baud_code = 0;
  for (const speed_t speed :
       {B1200, B2400, B4800, B9600, B19200, B38400, B57600, B115200, B230400, B460800, B921600}) {
    EXPECT_EQ(vlm_rs485_open(1, false, baud_code++), 0);
    EXPECT_EQ(asked_flags & CBAUD, speed);
  }
  unsigned char format_code = 0;
  for (const std::string format :
       {"8N1", "8E1", "8O1", "8N2", "8E2", "8O2", "7N1", "7E1", "7O1", "7N2", "7E2", "7O2"}) {
    const bool has_parity = format[1] != 'N';
    const tcflag_t flags = (format[0] == '8' ? CS8 : CS7) | (has_parity ? PARENB : 0u) |
                           (format[1] == 'O' ? PARODD : 0u) | (format[2] == '2' ? CSTOPB : 0u);
    const int bits = 1 + (format[0] - '0') + (has_parity ? 1 : 0) + (format[2] - '0');
    const Stopwatch time;
    EXPECT_EQ(vlm_rs485_open(1, false, k1200), 0);
    Add(1, 1, Ask(1), {1, 0, 0, 0, format_code++});
    RunCycle(1, 1);
    EXPECT_GE(time.Ms(), (35 + 80) * bits / 12) << format << ": silence and frame";
    EXPECT_EQ(asked_flags & (CSIZE | PARENB | PARODD | CSTOPB), flags) << format;
  }
  refusal = EIO;
  Add(1, 1, Ask(1));
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}})) << "the port refuses the format";
  refusal = 0;
}

TEST(SerialLibraryTest, WhatCannotBeIsRefused) {
  const Field field(1, {});
  Bytes bytes(65, 1);
  xfer_data good{64, bytes.data()};
  ::setenv("RS485_PORT_2", "/dev/null", 1);  // no serial device
  for (const int channel : {0, 2, 4, -1}) {
    EXPECT_EQ(vlm_rs485_open(channel, false, k1200), -1);
    EXPECT_EQ(vlm_rs485_startCom(channel), 0);
    EXPECT_EQ(vlm_rs485_putOutputStream(channel, 1, &good), 0);
    EXPECT_EQ(vlm_rs485_setComFlags(channel, 1), 0);
    EXPECT_EQ(vlm_rs485_getReceiveStream(channel, 0), nullptr);
    EXPECT_EQ(vlm_rs485_close(channel), channel == 2 ? 0 : -1);
  }
  EXPECT_EQ(vlm_rs485_putOutputStream(1, 31, &good), 1);
  const std::pair<unsigned char, std::uint16_t> refused[] = {{0, 8}, {32, 8}, {1, 0}, {1, 65}};
  for (const auto& [address, length] : refused) {
    xfer_data bad{length, bytes.data()};
    EXPECT_EQ(vlm_rs485_putOutputStream(1, address, &bad), 0);
    EXPECT_EQ(vlm_rs485_setPortParams(1, address, address == 1 ? 12 : 0, 1, 0, 0, 0), -1);
  }
  EXPECT_EQ(vlm_rs485_setComFlags(1, 1u << 31), 0);
  EXPECT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_921600 + 1), -1);
  EXPECT_EQ(vlm_rs485_open(1, true, k1200), -1);
}

TEST(SerialLibraryTest, ACloseEndsTheCycleAtOnce) {
  const Field field(1, {});
  Add(1, 31, Ask(31), {2000});
  vlm_rs485_setComFlags(1, 1u << 30);
  auto cycle = std::async(std::launch::async, [] { return vlm_rs485_startCom(1); });
  SleepMs(100);
  const Stopwatch time;
  vlm_rs485_close(1);
  EXPECT_EQ(cycle.get(), 1);
  EXPECT_LE(time.Ms(), kSlackMs);
  EXPECT_EQ(Answer(1, 31), (Outcome{VLM_RS485_PORT_GONE, {}}));
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
}

TEST(SerialLibraryTest, APulledAdapterIsNoticedAndFoundAgain) {
  Field field(1, AnswerAtOnce);
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
}

TEST(SerialLibraryTest, ANoisyLineHoldsADeviceForItsTimeOnly) {
  const std::vector<Step> noise(800, {5, {0x55}});
  const Field field(
      1, [&](Field& f, const Bytes&) { f.Play(noise); }, k1200);
  Add(1, 1, Bytes(kBroadcast, 0));
  Add(1, 2, Ask(2), {500, 0, 0, 255});
  EXPECT_LE(RunCycle(1, 3), 29 + 533 + 29 + 255 + 500 + 2 * kSlackMs);
  EXPECT_EQ(Answer(1, 2), (Outcome{VLM_RS485_LINE_ERROR, {}}));
}

TEST(SerialLibraryTest, ChannelsRunAtTheSameTime) {
  const Field fields[] = {{1, AnswerAtOnce}, {2, AnswerAtOnce}, {3, AnswerAtOnce}};
  const auto serve = [](int channel) {
    for (unsigned char address = 1; address <= 31; ++address) {
      Add(channel, address, Ask(address), {500, 0, 255, 50});
    }
    EXPECT_LE(RunCycle(channel, 0x7fffffff), 31 * 100) << "no answer waits for its silence";
    for (unsigned char address = 1; address <= 31; ++address) {
      EXPECT_EQ(Answer(channel, address), (Outcome{0, Told(address)}));
    }
  };
  const auto second = std::async(std::launch::async, serve, 2);
  const auto third = std::async(std::launch::async, serve, 3);
  serve(1);
}

}  // namespace
