#ifndef TAMSEL_TESTS_RS485_SERIAL_FIELD_H_
#define TAMSEL_TESTS_RS485_SERIAL_FIELD_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "modbus/rtu_frame.h"
#include "support/files.h"
#include "support/wait.h"
#include "vlm_rs485.h"

namespace tmsc::test {

using Clock = std::chrono::steady_clock;
using Bytes = std::vector<unsigned char>;

/// What devices send: bytes, each after a pause in ms.
using Steps = std::vector<std::pair<int, Bytes>>;
using Outcome = std::pair<int, Bytes>;

/// A channel's open port, and the field's end of it: a thread that plays a script for each frame.
class Field {
 public:
  using Script = std::function<Steps(int address)>;

  Field(int channel, unsigned char baud, Script script) : channel_(channel), script_(script) {
    PlugIn();
    EXPECT_EQ(vlm_rs485_open(channel, false, baud), 0);
  }
  ~Field() {
    if (thread_.joinable()) {
      PullOut();
    }
  }
  void PlugIn() {
    ASSERT_EQ(::openpty(&master_, &slave_, nullptr, nullptr, nullptr), 0);
    // A link: once pulled out, the terminal's own name may be another test's.
    ASSERT_EQ(::symlink(::ttyname(slave_), port_.c_str()), 0);
    ::setenv(("RS485_PORT_" + std::to_string(channel_)).c_str(), port_.c_str(), 1);
    is_ended_ = false;
    thread_ = std::thread([this] { Run(); });
  }
  void PullOut() {
    is_ended_ = true;
    thread_.join();
    ::close(master_);
    ::close(slave_);
    ::unlink(port_.c_str());
  }
  /// Once pulled out: whether everything was sent when the script said.
  bool IsInTime() const { return latest_ms_ <= 20; }

 private:
  void Run() {
    while (!is_ended_) {
      pollfd entry{master_, POLLIN, 0};
      unsigned char buffer[256];
      const ssize_t count = ::poll(&entry, 1, 5) == 1 ? ::read(master_, buffer, sizeof(buffer)) : 0;
      for (ssize_t at = 0; at < count && script_; at += buffer[at] == 0 ? 64 : 8) {
        for (const auto& [pause_ms, bytes] : script_(buffer[at])) {
          const int wanted_ms = is_ended_ ? 0 : pause_ms;
          const Stopwatch time;
          SleepMs(wanted_ms);
          latest_ms_ = std::max<int>(latest_ms_, time.Ms() - wanted_ms);
          EXPECT_GE(::write(master_, bytes.data(), bytes.size()), 0);
        }
      }
    }
  }

  const TempFolder folder_;
  const std::string port_ = folder_.Path("port");
  const int channel_;
  const Script script_;
  std::atomic<int> latest_ms_{0};
  int master_ = -1;
  int slave_ = -1;  // keeps the master usable while the library has the port closed
  std::atomic<bool> is_ended_{false};
  std::thread thread_;
};

inline Bytes operator+(Bytes left, const Bytes& right) {
  left.insert(left.end(), right.begin(), right.end());
  return left;
}

/// An answer with these values, by default those of the one register that Add asks for.
inline Bytes Told(int address, const Bytes& values = {0x12, 0x34}) {
  return modbus::RtuFrame(address, Bytes{3, static_cast<unsigned char>(values.size())} + values);
}
inline Steps AnswerAtOnce(int address) {
  return {{0, Bytes(address % 2, 0x55) + Told(address)}};  // noise before every other answer
}

struct Parameters {
  short timeout_ms = 500;
  unsigned char delimiter = 0;
  unsigned char after = 0;
  unsigned char wait_ms = 0;
  unsigned char format = VLM_RS485_8N1;
};

/// Has the cycle send a device a frame, by default one of Modbus RTU.
inline void Add(int channel, unsigned char address, const Parameters& device = {},
                Bytes frame = {}) {
  frame = frame.empty() ? modbus::RtuFrame(address, {3, 0, 0, 0, 1}) : frame;
  xfer_data data{static_cast<std::uint16_t>(frame.size()), frame.data()};
  const auto [timeout, delimiter, after, wait, format] = device;
  EXPECT_EQ(vlm_rs485_setPortParams(channel, address, format, timeout, delimiter, after, wait), 0);
  EXPECT_EQ(vlm_rs485_putOutputStream(channel, address, &data), 1);
}

inline int RunCycle(int channel) {
  EXPECT_EQ(vlm_rs485_setComFlags(channel, 0x7fffffff), 1);
  const Stopwatch time;
  EXPECT_EQ(vlm_rs485_startCom(channel), 1);
  return time.Ms();
}

inline Outcome Answer(int channel, int address) {
  const auto [size, status, bytes] = *vlm_rs485_getReceiveStream(channel, 0)->rcv_dt[address - 1];
  return {status, {bytes, bytes + size}};
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_RS485_SERIAL_FIELD_H_
