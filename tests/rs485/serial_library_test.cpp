// The serial-port library on the slave's side of pseudo-terminals; the test is the field.

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <future>

#include "rs485/serial_field.h"

namespace tmsc::test {

using namespace std::chrono_literals;

// A pseudo-terminal takes any speed, but not every format: what the library asks of it, and when.
static thread_local termios asked;
static thread_local Clock::time_point asked_at;
static thread_local int refusal = 0;  // an errno for the next call

/// Stands in front of the system's function for the library, too.
extern "C" int tcsetattr(int descriptor, int when, const termios* line) noexcept {
  static const auto set = reinterpret_cast<decltype(&tcsetattr)>(::dlsym(RTLD_NEXT, "tcsetattr"));
  termios without_marks = asked = *line;
  without_marks.c_iflag &= ~tcflag_t{PARMRK};  // the test sends its own
  asked_at = Clock::now();
  errno = std::exchange(refusal, 0);
  return errno != 0 ? -1 : set(descriptor, when, &without_marks);
}

namespace {

const Outcome kError = {VLM_RS485_LINE_ERROR, {}};
const Outcome kNotItsAnswer = {VLM_RS485_NOT_ITS_ANSWER, {}};
const Outcome kNoAnswer = {VLM_RS485_NO_ANSWER, {}};
constexpr unsigned char k1200 = VLM_RS485_BAUD_1200;
constexpr unsigned char k115200 = VLM_RS485_BAUD_115200;
const Bytes kBroadcast(64, 0);  // other frames have 8 bytes

/// What follows from what comes after a frame to device 1, and the least it takes from the open on.
struct Case {
  const char* name;
  Steps steps;
  Outcome outcome;
  Parameters device = {};
  int least_ms = 0;
  unsigned char baud = k115200;
};

void Check(const Bytes& frame, const std::vector<Case>& cases) {
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    bool is_in_time = false;
    for (int left = 20; !is_in_time && left > 0; --left) {
      const Stopwatch time;
      Field field(1, c.baud, [&](int) { return c.steps; });
      Add(1, 1, c.device, frame);
      const int cycle_ms = RunCycle(1);
      const int ms = time.Ms();
      field.PullOut();
      is_in_time = field.IsInTime();
      if (is_in_time || left == 1) {
        EXPECT_LE(cycle_ms, c.device.timeout_ms + 255 + 2 * kSlackMs);
        EXPECT_GE(ms, c.least_ms);
        EXPECT_EQ(Answer(1, 1), c.outcome);
      }
    }
  }
}

TEST(SerialLibraryTest, AnAnswerIsFoundInWhatIsHeardAndEndsInTime) {
  const Bytes own = Told(1);
  const Bytes damaged = {1, 3, 2, 0x12, 0x34, 0, 0};
  const Bytes exception = modbus::RtuFrame(1, {0x83, 2});
  const Bytes no_answer = Bytes{0x55} + modbus::RtuFrame(1, {4, 2, 0, 1});
  const Bytes own_end(own.begin() + 4, own.end());
  const Bytes stale = Told(1, {9, 9, 9, 9});
  Check({},
        {{"noise like its address before it", {{0, Bytes{1} + own}}, {0, own}},
         {"an exception in noise", {{0, Bytes{0x55} + exception + Bytes{0x55}}}, {0, exception}},
         {"damaged, two late ones behind it", {{0, damaged + Told(9) + Told(8)}}, {0, damaged}},
         {"another function's behind noise", {{0, no_answer}}, kNotItsAnswer, {}, 500},
         {"another read's before it", {{0, stale + own}}, {0, own}},
         {"another read's in pieces",
          {{0, {1, 3}}, {60, Bytes(stale.begin() + 2, stale.end())}},
          kNotItsAnswer},
         {"noise", Steps(2, {300, Bytes(300, 9)}), kNotItsAnswer, {900, 0, 100}},
         {"pauses within it", {{0, {1}}, {60, {3, 2, 0x12}}, {60, own_end}}, {0, own}},
         {"a pause behind noise", {{0, {0x55, 1, 3}}, {60, Bytes{2, 0x12} + own_end}}, {0, own}},
         {"a pause that is too long",
          {{0, {1, 3}}, {200, Bytes{2, 0x12} + own_end}},
          {0, {1, 3}},
          100},
         {"a pause at the time-out", {{450, {1, 3}}, {70, Bytes{2, 0x12} + own_end}}, {0, own}},
         {"pauses behind it", {{450, {1, 3}}, {70, {2}}, {70, {0x12}}, {70, own_end}}, kNoAnswer},
         {"an error in two reads", {{0, {1, 2, 0xff}}, {100, {0, 3}}}, kError, {500, 0, 255}},
         {"another's error", {{0, {9, 0xff, 0, 3}}, {240, {1}}}, {0, {1}}, {500, 0, 40}},
         {"a break before it", {{0, Bytes{0xff, 0, 0} + own}}, {0, own}}});
  Check(modbus::RtuFrame(1, {6, 0, 1, 0, 5}),
        {{"another device's", {{0, modbus::RtuFrame(9, {6, 0, 1, 0, 5})}}, kNotItsAnswer, {100}},
         {"another function's behind noise", {{0, no_answer}}, kNotItsAnswer, {100}}});
  const Bytes nested = Told(1, exception + Bytes{0});
  Check(modbus::RtuFrame(1, {3, 0, 0, 0, 3}), {{"a frame within it", {{0, nested}}, {0, nested}}});
  Check({1, 3, 0, 0, 0, 1, 0, 0},  // no Modbus RTU, its CRC is wrong: silence ends the answer
        {{"at once, not after 16 ms", {{0, {1, 0xff, 0xff, 0}}}, {0, {1, 0xff, 0}}, {}, 17},
         {"in blocks of 16", {{0, {1}}, {40, {2}}}, {0, {1, 2}}, {}, 40 + 133 + 29, k1200},
         {"behind another's", {{0, {9}}, {240, {1}}}, {0, {1}}, {500, 0, 40}, 280 + 29, k1200},
         {"never less than 3.5 characters", {{0, {1}}}, {0, {1}}, {500, 0, 1}, 29 + 29, k1200},
         {"open at the time-out", {{250, {1, 2}}}, {0, {1, 2}}, {500, 0, 255}, 505},
         {"still coming then", Steps(150, {20, {1}}), kNoAnswer, {500, 0, 255}, 755},
         {"longest", {{0, Bytes(436, 1)}}, {0, Bytes(436, 1)}},
         {"too long", {{0, Bytes(437, 1)}}, {VLM_RS485_TOO_LONG, {}}},
         {"a delimiter too late", {{0, Bytes(436, 1) + Bytes{7}}}, {3, {}}, {500, 7}},
         {"delimiter", {{0, {7}}, {50, {13, 5}}, {50, {6, 99}}}, {0, {7, 13, 5, 6}}, {900, 13, 2}},
         {"delimiter missing", {{0, {7, 13, 5}}}, kNoAnswer, {500, 13, 2}, 500}});
}

TEST(SerialLibraryTest, AnEchoIsNoAnswer) {
  const Bytes read = modbus::RtuFrame(1, {3, 0, 0, 0, 1});
  const Bytes write = modbus::RtuFrame(1, {6, 0, 1, 0, 5});
  const Bytes own = Told(1);
  struct Row {
    const char* name;
    Bytes frame;
    Steps steps;
    Outcome outcome;
    const char* setting = nullptr;  // the port is opened anew
  };
  const Row rows[] = {
      {"of a write, not known", write, {{0, write}}, {0, write}, "0"},
      {"of a read", read, {{0, read}, {50, own}}, {0, own}},
      {"of a write, known", write, {{0, write}}, kNoAnswer},
      {"and its answer", write, {{0, Bytes{0} + write}, {50, write}}, {0, write}},
      {"forgotten", write, {{0, write}}, {0, write}, "0"},
      {"of a read, alone", read, {{0, read}}, kNoAnswer},
      {"set", write, {{0, {1, 6}}, {50, Bytes(write.begin() + 2, write.end())}}, kNoAnswer, "1"},
      {"set, and none there", read, {{0, own}}, {0, own}, "1"},
      {"of another protocol",
       {1, 13, 2, 3, 4, 5, 6, 7},
       {{0, {1, 13, 2, 3, 4, 5, 6, 7}}},
       kNoAnswer},
  };
  std::atomic<const Row*> played{nullptr};
  const Field field(1, k115200, [&](int) { return played.load()->steps; });
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    played = &row;
    if (row.setting != nullptr) {
      ::setenv("RS485_ECHO_1", row.setting, 1);
      EXPECT_EQ(vlm_rs485_open(1, false, k115200), 0);
    }
    Add(1, 1, {}, row.frame);
    RunCycle(1);
    EXPECT_EQ(Answer(1, 1), row.outcome);
  }
}

TEST(SerialLibraryTest, LateAnswersLandInNoOtherSlot) {
  // Device 1 has 500 ms: its answer arrives in the time of device 31.
  const Field field(1, k115200, [](int to) { return Steps{{to == 1 ? 1300 : 0, Told(to)}}; });
  Add(1, 1);
  Add(1, 31, {2000});
  static int calls = 0;
  vlm_rs485_addEventListener(1, [] { ++calls; });
  RunCycle(1);
  vlm_rs485_removeEventListener(1);
  EXPECT_EQ(Answer(1, 1), kNoAnswer);
  EXPECT_EQ(Answer(1, 31), (Outcome{0, Told(31)}));
  Add(1, 1);
  EXPECT_EQ(vlm_rs485_startCom(1), 1);
  EXPECT_EQ(vlm_rs485_getReceiveStream(1, 0)->rcv_dt[0], nullptr) << "flags are used up";
  RunCycle(1);
  EXPECT_EQ(vlm_rs485_getReceiveStream(1, 0)->rcv_dt[0], nullptr) << "frames are used up";
  EXPECT_EQ(calls, 1);
}

TEST(SerialLibraryTest, AStoppedProcessMissesNothing) {
  std::signal(SIGUSR1, [](int) { ::sleep(2); });  // longer than a device's time-out
  const Field field(1, k1200, [library = ::pthread_self()](int address) {
    // While the broadcast's silence is kept, and while the answer is waited for.
    ::pthread_kill(library, address <= 1 ? SIGUSR1 : 0);
    return Steps{{100, Told(address)}};
  });
  Add(1, 1, {1000});
  Add(1, 2, {}, kBroadcast);
  Add(1, 3, {1000});
  EXPECT_GE(RunCycle(1), 4000);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
  EXPECT_EQ(Answer(1, 3), (Outcome{0, Told(3)}));
}

TEST(SerialLibraryTest, TheLineIsSilentBeforeEachFrame) {
  Clock::time_point answered;
  const Field field(1, k1200, [&](int address) {
    EXPECT_GE(Clock::now() - answered, 29166us);
    answered = Clock::now();
    return AnswerAtOnce(address);
  });
  Add(1, 1);
  Add(1, 5, {}, kBroadcast);
  Add(1, 6, {500, 0, 0, 200, VLM_RS485_8N2});
  // A silence of 10-bit characters, the broadcast, a silence of 11-bit ones, the wait.
  EXPECT_GE(RunCycle(1), 29 + 533 + 32 + 200);
  EXPECT_LE(Clock::now() - asked_at, 700ms) << "the format changed while the broadcast was sent";
  EXPECT_EQ(Answer(1, 5), (Outcome{0, {}}));
  EXPECT_EQ(Answer(1, 6), (Outcome{0, Told(6)}));
}

TEST(SerialLibraryTest, SpeedsAndFormatsAreThoseOfTheCodes) {
  const Field field(1, k115200, {});
  unsigned char baud_code = 0;
  for (const speed_t speed :
       {B1200, B2400, B4800, B9600, B19200, B38400, B57600, B115200, B230400, B460800, B921600}) {
    EXPECT_EQ(vlm_rs485_open(1, false, baud_code++), 0);
    EXPECT_EQ(asked.c_cflag & CBAUD, speed);
    EXPECT_EQ(asked.c_iflag & (PARMRK | INPCK | IGNPAR), tcflag_t{PARMRK | INPCK});
  }
  for (unsigned char code = 0; code < 12; ++code) {
    const tcflag_t flags = (code < 6 ? CS8 : CS7) | (code % 3 != 0 ? PARENB : 0u) |
                           (code % 3 == 2 ? PARODD : 0u) | (code / 3 % 2 != 0 ? CSTOPB : 0u);
    const int bits = (code < 6 ? 10 : 9) + (code % 3 != 0 ? 1 : 0) + code / 3 % 2;
    const Stopwatch time;
    EXPECT_EQ(vlm_rs485_open(1, false, k1200), 0);
    Add(1, 1, {1, 0, 0, 0, code});
    RunCycle(1);
    EXPECT_GE(time.Ms(), (35 + 80) * bits / 12) << int{code} << ": silence and frame";
    EXPECT_EQ(asked.c_cflag & (CSIZE | PARENB | PARODD | CSTOPB), flags) << int{code};
  }
  refusal = EIO;
  Add(1, 1);
  RunCycle(1);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}})) << "the port refuses the format";
}

TEST(SerialLibraryTest, WhatCannotBeIsRefusedAndACloseEndsTheCycle) {
  std::atomic<int> frames{0};
  const Field field(1, k115200, [&](int) {
    ++frames;
    return Steps{};
  });
  Bytes bytes(65, 1);
  xfer_data good{64, bytes.data()};
  ::setenv("RS485_PORT_2", "/dev/null", 1);  // no serial device
  for (const int channel : {0, 2, 4}) {
    EXPECT_EQ(vlm_rs485_open(channel, false, k1200), -1);
    EXPECT_EQ(vlm_rs485_startCom(channel), 0);
    EXPECT_EQ(vlm_rs485_putOutputStream(channel, 1, &good), 0);
    EXPECT_EQ(vlm_rs485_setComFlags(channel, 1), 0);
    EXPECT_EQ(vlm_rs485_getReceiveStream(channel, 0), nullptr);
  }
  const std::pair<unsigned char, std::uint16_t> refused[] = {{0, 8}, {32, 8}, {1, 0}, {1, 65}};
  for (const auto& [address, length] : refused) {
    xfer_data bad{length, bytes.data()};
    EXPECT_EQ(vlm_rs485_putOutputStream(1, address, &bad), 0);
    EXPECT_EQ(vlm_rs485_setPortParams(1, address, address == 1 ? 12 : 0, 1, 0, 0, 0), -1);
  }
  EXPECT_EQ(vlm_rs485_setComFlags(1, 1u << 31), 0);
  EXPECT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_921600 + 1), -1);
  EXPECT_EQ(vlm_rs485_open(1, true, k1200), -1);
  Add(1, 31, {2000});
  auto cycle = std::async(std::launch::async, RunCycle, 1);
  ASSERT_TRUE(WaitFor(5000, [&] { return frames == 1; }));
  EXPECT_EQ(vlm_rs485_close(1), 0);
  EXPECT_LT(cycle.get(), 2000);
  EXPECT_EQ(Answer(1, 31), (Outcome{VLM_RS485_PORT_GONE, {}}));
  errno = 0;
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
  EXPECT_EQ(errno, EBADF);
}

TEST(SerialLibraryTest, APulledAdapterIsNoticedAndFoundAgain) {
  Field field(1, k115200, AnswerAtOnce);
  field.PullOut();
  Add(1, 1, {2000});
  EXPECT_LE(RunCycle(1), kSlackMs);
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}}));
  Add(1, 1);
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
  EXPECT_EQ(errno, ENOENT);
  field.PlugIn();
  RunCycle(1);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, Told(1)}));
}

TEST(SerialLibraryTest, ANoisyLineHoldsADeviceForItsTimeOnly) {
  bool is_in_time = false;
  for (int left = 20; !is_in_time && left > 0; --left) {
    Field field(1, k1200, [](int) { return Steps(800, {5, {0x55}}); });
    Add(1, 1, {}, kBroadcast);
    Add(1, 2, {500, 0, 0, 255});
    EXPECT_LE(RunCycle(1), 29 + 533 + 29 + 255 + 500 + 2 * kSlackMs);
    field.PullOut();
    is_in_time = field.IsInTime();
    if (is_in_time || left == 1) {
      EXPECT_EQ(Answer(1, 2), kError);
    }
  }
}

TEST(SerialLibraryTest, ChannelsRunAtTheSameTime) {
  std::atomic<int> frames[4] = {};
  const auto field_of = [&](int channel, int other) {
    return [&, channel, other](int address) {
      frames[channel] = address;
      EXPECT_TRUE(address < 31 || frames[other] > 0) << "one channel waits for the other";
      return AnswerAtOnce(address);
    };
  };
  const Field fields[] = {{1, k115200, field_of(1, 3)}, {3, k115200, field_of(3, 1)}};
  const auto serve = [](int channel) {
    for (unsigned char address = 1; address <= 31; ++address) {
      Add(channel, address, {500, 0, 255, 60});
    }
    EXPECT_LE(RunCycle(channel), 31 * 150) << "no answer waits for its silence";
    for (int address = 1; address <= 31; ++address) {
      EXPECT_EQ(Answer(channel, address), (Outcome{0, Told(address)}));
    }
  };
  const auto other = std::async(std::launch::async, serve, 3);
  serve(1);
}

}  // namespace
}  // namespace tmsc::test
