// The serial-port library over pseudo-terminals: the library has the slave's side, the test plays
// the devices on the master's.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "support/files.h"
#include "vlm_rs485.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using Bytes = std::vector<unsigned char>;

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
    int slave = -1;
    ASSERT_EQ(::openpty(&master_, &slave, nullptr, nullptr, nullptr), 0);
    std::filesystem::remove(folder_.Path("port"));
    std::filesystem::create_symlink(::ttyname(slave), folder_.Path("port"));
    slave_ = slave;  // keeps the master usable while the library has the port closed
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
  void Send(const Bytes& bytes) {
    last_sent_ = Clock::now();
    EXPECT_EQ(::write(master_, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  static void Pause(int ms) { std::this_thread::sleep_for(milliseconds(ms)); }

  /// Valid after PullOut.
  Clock::duration shortest_gap = Clock::duration::max();  // from an answer to the next frame

 private:
  void Run() {
    while (!is_ended_) {
      pollfd entry{master_, POLLIN, 0};
      unsigned char buffer[256];
      if (::poll(&entry, 1, 5) != 1) {
        continue;
      }
      const ssize_t count = ::read(master_, buffer, sizeof(buffer));
      if (count <= 0) {
        Pause(1);
        continue;
      }
      shortest_gap = std::min(shortest_gap, Clock::now() - last_sent_);
      script_(*this, Bytes(buffer, buffer + count));
    }
  }

  tmsc::test::TempFolder folder_;
  Script script_;
  int master_ = -1;
  int slave_ = -1;
  std::atomic<bool> is_ended_{false};
  Clock::time_point last_sent_;
  std::thread thread_;
};

constexpr unsigned char kBaud = VLM_RS485_BAUD_115200;

/// Has the cycle serve a device; its frame is its address and 0x03.
void Add(int channel, unsigned char address, short timeout_ms = 150, unsigned char delimiter = 0,
         unsigned char after = 0, unsigned char wait = 0) {
  Bytes frame = {address, 0x03};
  xfer_data data{static_cast<std::uint16_t>(frame.size()), frame.data()};
  ASSERT_EQ(
      vlm_rs485_setPortParams(channel, address, VLM_RS485_8N1, timeout_ms, delimiter, after, wait),
      0);
  ASSERT_EQ(vlm_rs485_putOutputStream(channel, address, &data), 1);
}

/// Runs a cycle and returns how long it took.
milliseconds RunCycle(int channel, unsigned int flags) {
  EXPECT_EQ(vlm_rs485_setComFlags(channel, flags), 1);
  const auto start = Clock::now();
  EXPECT_EQ(vlm_rs485_startCom(channel), 1);
  return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
}

/// Status and bytes of a device's answer.
std::pair<int, Bytes> Answer(int channel, int address) {
  const receive_data_full* answers = vlm_rs485_getReceiveStream(channel, 0);
  const receive_data* answer = answers == nullptr ? nullptr : answers->rcv_dt[address - 1];
  if (answer == nullptr) {
    return {-1, {}};
  }
  return {answer->rcv_status, Bytes(answer->rcv_da, answer->rcv_da + answer->rcv_da_len)};
}

using Outcome = std::pair<int, Bytes>;
const Outcome kNone = {VLM_RS485_NO_ANSWER, {}};

TEST(SerialLibraryTest, WhatADeviceDoesDecidesItsStatus) {
  Bytes long_answer(436, 0xff);  // 0xff is also what marks an error in the driver's input
  long_answer[0] = 1;
  struct Case {
    const char* name;
    Field::Script script;
    unsigned char delimiter;
    unsigned char after;
    Outcome outcome;
  };
  const Case cases[] = {
      {"at once",
       [](Field& f, const Bytes&) {
         f.Send({1, 2, 0, 0xff, 0});
       },
       0,
       0,
       {0, {1, 2, 0, 0xff, 0}}},
      {"late but in time",
       [](Field& f, const Bytes&) {
         f.Pause(80);
         f.Send({1, 2});
       },
       0,
       0,
       {0, {1, 2}}},
      {"dribbles with a longer silence",
       [](Field& f, const Bytes&) {
         f.Send({1});
         f.Pause(15);
         f.Send({2});
         f.Pause(15);
         f.Send({3});
       },
       0,
       60,
       {0, {1, 2, 3}}},
      {"silent", [](Field&, const Bytes&) {}, 0, 0, kNone},
      {"another's answer first",
       [](Field& f, const Bytes&) {
         f.Send({9, 9});
         f.Pause(20);
         f.Send({1, 2});
       },
       0,
       0,
       {0, {1, 2}}},
      {"another's answer only",
       [](Field& f, const Bytes&) {
         f.Send({9, 9});
       },
       0, 0, kNone},
      {"longest", [&](Field& f, const Bytes&) { f.Send(long_answer); }, 0, 0, {0, long_answer}},
      {"too long",
       [&](Field& f, const Bytes&) {
         f.Send(long_answer);
         f.Send({1});
       },
       0,
       0,
       {VLM_RS485_TOO_LONG, {}}},
      {"delimiter and two bytes",
       [](Field& f, const Bytes&) {
         f.Send({7, 8});
         f.Pause(20);
         f.Send({13, 5, 6, 99});
       },
       13,
       2,
       {0, {7, 8, 13, 5, 6}}},
      {"delimiter missing",
       [](Field& f, const Bytes&) {
         f.Send({7, 8, 13, 5});
       },
       13, 2, kNone},
  };
  for (const Case& c : cases) {
    Field field(1, c.script);
    ASSERT_EQ(vlm_rs485_open(1, false, kBaud), 0);
    Add(1, 1, 150, c.delimiter, c.after);
    EXPECT_LE(RunCycle(1, 1), milliseconds(150 + 60)) << c.name;
    EXPECT_EQ(Answer(1, 1), c.outcome) << c.name;
    EXPECT_EQ(Answer(1, 2).first, -1) << "not in the cycle";
    EXPECT_EQ(vlm_rs485_close(1), 0);
  }
}

TEST(SerialLibraryTest, ALateAnswerLandsInNoOtherSlot) {
  Field field(1, [](Field& f, const Bytes& frame) {
    if (frame[0] == 1) {
      f.Pause(70);  // device 1 has 50 ms: this arrives in the time of device 2
      f.Send({1, 0x11});
    } else {
      f.Pause(60);
      f.Send({frame[0], 0x22});
    }
  });
  ASSERT_EQ(vlm_rs485_open(1, false, kBaud), 0);
  Add(1, 1, 50);
  Add(1, 2, 300);
  Add(1, 31, 300);
  RunCycle(1, 1u << 30 | 3);
  EXPECT_EQ(Answer(1, 1), kNone);
  EXPECT_EQ(Answer(1, 2), (Outcome{0, {2, 0x22}}));
  EXPECT_EQ(Answer(1, 31), (Outcome{0, {31, 0x22}}));
  RunCycle(1, 3);
  EXPECT_EQ(Answer(1, 1).first, -1) << "frames and flags are used up";
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, TheLineIsSilentBeforeEachFrame) {
  Field field(2, [](Field& f, const Bytes& frame) { f.Send({frame[0], 1}); });
  ASSERT_EQ(vlm_rs485_open(2, false, VLM_RS485_BAUD_1200), 0);
  for (unsigned char address = 1; address <= 4; ++address) {
    Add(2, address, 300);
  }
  Bytes broadcast = {0, 6};
  xfer_data data{2, broadcast.data()};
  ASSERT_EQ(vlm_rs485_putOutputStream(2, 5, &data), 1);
  RunCycle(2, 0x1f);
  EXPECT_EQ(Answer(2, 4), (Outcome{0, {4, 1}}));
  EXPECT_EQ(Answer(2, 5), (Outcome{0, {}}));
  vlm_rs485_close(2);
  field.PullOut();  // ends its thread, which measured
  // 3.5 characters of 10 bits at 1200 bits a second.
  EXPECT_GE(field.shortest_gap, std::chrono::microseconds(29166));
}

TEST(SerialLibraryTest, WhatCannotBeIsRefused) {
  Field field(1, [](Field&, const Bytes&) {});
  Bytes bytes(65, 1);
  xfer_data good{64, bytes.data()};
  EXPECT_EQ(vlm_rs485_startCom(1), 0) << "not open";
  EXPECT_EQ(vlm_rs485_putOutputStream(1, 1, &good), 0);
  EXPECT_EQ(vlm_rs485_setComFlags(1, 1), 0);
  EXPECT_EQ(vlm_rs485_getReceiveStream(3, 0), nullptr);
  EXPECT_NE(vlm_rs485_open(1, false, 11), 0);
  EXPECT_NE(vlm_rs485_open(1, true, kBaud), 0);
  for (const int channel : {0, 4, -1}) {
    EXPECT_NE(vlm_rs485_open(channel, false, kBaud), 0);
    EXPECT_NE(vlm_rs485_close(channel), 0);
    EXPECT_EQ(vlm_rs485_startCom(channel), 0);
  }
  ::setenv("RS485_PORT_3", "/dev/null", 1);
  EXPECT_NE(vlm_rs485_open(3, false, kBaud), 0) << "no serial device";
  ASSERT_EQ(vlm_rs485_open(1, false, kBaud), 0);
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
  Field field(1, [](Field&, const Bytes&) {});
  ASSERT_EQ(vlm_rs485_open(1, false, kBaud), 0);
  for (unsigned char address = 1; address <= 31; ++address) {
    Add(1, address, 2000);
  }
  vlm_rs485_setComFlags(1, 0x7fffffff);
  std::future<unsigned char> cycle =
      std::async(std::launch::async, [] { return vlm_rs485_startCom(1); });
  Field::Pause(50);
  const auto start = Clock::now();
  vlm_rs485_close(1);
  ASSERT_EQ(cycle.wait_for(milliseconds(500)), std::future_status::ready);
  EXPECT_LT(Clock::now() - start, milliseconds(500));
  EXPECT_EQ(Answer(1, 31), (Outcome{VLM_RS485_PORT_GONE, {}}));
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
}

TEST(SerialLibraryTest, APulledAdapterIsNoticedAndFoundAgain) {
  Field field(1, [](Field& f, const Bytes& frame) { f.Send({frame[0], 5}); });
  ASSERT_EQ(vlm_rs485_open(1, false, kBaud), 0);
  Add(1, 1);
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, {1, 5}}));
  field.PullOut();
  Add(1, 1, 2000);
  Add(1, 2, 2000);
  EXPECT_LT(RunCycle(1, 3), milliseconds(100));
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_PORT_GONE, {}}));
  EXPECT_EQ(Answer(1, 2), (Outcome{VLM_RS485_PORT_GONE, {}}));
  Add(1, 1);
  vlm_rs485_setComFlags(1, 1);
  EXPECT_EQ(vlm_rs485_startCom(1), 0);
  field.PlugIn();
  RunCycle(1, 1);
  EXPECT_EQ(Answer(1, 1), (Outcome{0, {1, 5}}));
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, ANoisyLineHoldsADeviceForItsTimeOnly) {
  std::atomic<bool> is_ended{false};
  Field field(1, [](Field&, const Bytes&) {});
  ASSERT_EQ(vlm_rs485_open(1, false, VLM_RS485_BAUD_1200), 0);
  std::thread noise([&] {
    while (!is_ended) {
      field.Send({0x55});
      Field::Pause(2);
    }
  });
  Field::Pause(20);
  Add(1, 1, 200);
  EXPECT_LE(RunCycle(1, 1), milliseconds(200 + 30 + 30 + 100));
  EXPECT_EQ(Answer(1, 1), (Outcome{VLM_RS485_LINE_ERROR, {}}));
  is_ended = true;
  noise.join();
  vlm_rs485_close(1);
}

TEST(SerialLibraryTest, ChannelsRunAtTheSameTime) {
  const auto answer = [](Field& f, const Bytes& frame) {
    f.Pause(1);
    f.Send({frame[0], 0x44});
  };
  Field fields[] = {{1, answer}, {2, answer}, {3, answer}};
  std::vector<std::thread> channels;
  std::atomic<int> answered{0};
  for (int channel = 1; channel <= 3; ++channel) {
    channels.emplace_back([&answered, channel] {
      ASSERT_EQ(vlm_rs485_open(channel, false, kBaud), 0);
      for (int round = 0; round < 5; ++round) {
        for (unsigned char address = 1; address <= 31; ++address) {
          Add(channel, address);
        }
        RunCycle(channel, 0x7fffffff);
        for (unsigned char address = 1; address <= 31; ++address) {
          answered += Answer(channel, address) == Outcome{0, {address, 0x44}} ? 1 : 0;
        }
      }
      vlm_rs485_close(channel);
    });
  }
  for (std::thread& channel : channels) {
    channel.join();
  }
  EXPECT_EQ(answered, 3 * 5 * 31);
}

}  // namespace
