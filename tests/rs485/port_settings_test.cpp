// What the environment says about a port: direction switching, on pseudo-terminals with a UART's
// ioctls, and the silence between frames.

#include <dlfcn.h>
#include <linux/serial.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <future>
#include <map>
#include <mutex>

#include "rs485/serial_field.h"

namespace tmsc::test {

using namespace std::chrono_literals;

namespace {

/// A UART's ioctls: what it knows, and what it was told.
struct Uart {
  bool has_modem_lines = false;
  int busy_count = -1;  // times that it has not sent everything yet; -1: it does not tell
  bool knows_rs485 = false;
  serial_rs485 refused = {};  // bits of the driver's mode that stay as they are: 0

  // 1 and 0: RTS on and off; b and e: asked, busy or empty; S[flags/before/after]: the driver's
  // mode.
  std::string trace = {};
  std::vector<std::pair<char, Clock::time_point>> rts = {};  // 1 or 0
};
std::mutex uart_mutex;
Uart* uart = nullptr;  // null: no ioctl is played

int Refuse() {
  errno = ENOTTY;
  return -1;
}

int Play(Uart& played, unsigned long request, void* argument) {
  switch (request) {
    case TIOCMBIS:
    case TIOCMBIC:
      if (!played.has_modem_lines || *static_cast<int*>(argument) != TIOCM_RTS) {
        return Refuse();
      }
      played.trace += request == TIOCMBIS ? '1' : '0';
      played.rts.emplace_back(played.trace.back(), Clock::now());
      return 0;
    case TIOCSERGETLSR:
      if (played.busy_count < 0) {
        return Refuse();
      }
      played.trace += played.busy_count > 0 ? 'b' : 'e';
      *static_cast<int*>(argument) = played.busy_count > 0 ? 0 : TIOCSER_TEMT;
      played.busy_count = std::max(played.busy_count - 1, 0);
      return 0;
    case TIOCGRS485:  // the serial core answers for drivers that know nothing of it, too
      *static_cast<serial_rs485*>(argument) = {};
      return 0;
    default: {
      auto& mode = *static_cast<serial_rs485*>(argument);
      if (!played.knows_rs485) {
        return Refuse();
      }
      played.trace += "S" + std::to_string(mode.flags) + "/" +
                      std::to_string(mode.delay_rts_before_send) + "/" +
                      std::to_string(mode.delay_rts_after_send) + " ";
      mode.flags &= ~played.refused.flags;
      mode.delay_rts_before_send &= ~played.refused.delay_rts_before_send;
      return 0;
    }
  }
}

}  // namespace

}  // namespace tmsc::test

/// Stands in front of the system's function for the library, too.
extern "C" int ioctl(int descriptor, unsigned long request, ...) noexcept {
  va_list arguments;
  va_start(arguments, request);
  void* const argument = va_arg(arguments, void*);
  va_end(arguments);
  {
    const std::lock_guard<std::mutex> lock(tmsc::test::uart_mutex);
    const unsigned long played[] = {TIOCMBIS, TIOCMBIC, TIOCSERGETLSR, TIOCGRS485, TIOCSRS485};
    if (tmsc::test::uart != nullptr &&
        std::find(std::begin(played), std::end(played), request) != std::end(played)) {
      return tmsc::test::Play(*tmsc::test::uart, request, argument);
    }
  }
  using Call = int (*)(int, unsigned long, ...);
  static const auto system = reinterpret_cast<Call>(::dlsym(RTLD_NEXT, "ioctl"));
  return system(descriptor, request, argument);
}

namespace tmsc::test {

namespace {

class PortSettingsTest : public testing::Test {
 protected:
  static void Set(const std::map<std::string, std::string>& variables) {
    for (const char* name : {"RTS", "DELAY_BEFORE", "DELAY_AFTER", "SILENCE", "ECHO"}) {
      const auto given = variables.find(name);
      ::setenv(("RS485_" + std::string(name) + "_1").c_str(),
               given == variables.end() ? "" : given->second.c_str(), 1);
    }
  }
  ~PortSettingsTest() override { Play(nullptr); }
  static void Play(Uart* played) {
    const std::lock_guard<std::mutex> lock(uart_mutex);
    uart = played;
  }
};

constexpr unsigned char k9600 = VLM_RS485_BAUD_9600;
constexpr auto kFrameTime = 8 * 10 * 1000000us / 9600;  // 8 characters of 10 bits

TEST_F(PortSettingsTest, TheLineIsDrivenForTheFrameByWhomAndHowTheEnvironmentSays) {
  const serial_rs485 polarity{SER_RS485_RTS_AFTER_SEND, 0, 0, {}};
  const serial_rs485 delay{0, 0xff, 0, {}};
  const struct {
    const char* name;
    std::map<std::string, std::string> variables;
    Uart uart;
    std::string trace;
    int before_ms = 0;
    int after_ms = 0;
  } cases[] = {
      {"nothing said, driver knows nothing", {}, {true, 0}, ""},
      {"nothing said, driver knows", {}, {true, 0, true}, "S3/0/0 "},
      {"delays, but nobody to switch", {{"DELAY_BEFORE", "100"}}, {true, 0}, ""},
      {"high, driver knows", {{"RTS", "high"}}, {true, 0, true}, "S3/0/0 "},
      {"low, driver knows", {{"RTS", "low"}, {"DELAY_AFTER", "7"}}, {true, 0, true}, "S5/0/7 "},
      {"driver's delay", {{"DELAY_BEFORE", "100"}}, {true, 0, true}, "S3/100/0 "},
      {"high by hand", {{"RTS", "high"}}, {true, 0}, "01e0"},
      {"low by hand", {{"RTS", "low"}}, {true, 0}, "10e1"},
      {"waits until it is sent", {{"RTS", "high"}}, {true, 3}, "01bbbe0"},
      {"does not tell what is sent", {{"RTS", "high"}}, {true}, "010"},
      {"driver switched off", {{"RTS", "software-high"}}, {true, 0, true}, "S2/0/0 01e0"},
      {"driver's other polarity",
       {{"RTS", "low"}},
       {true, 0, true, polarity},
       "S5/0/0 S0/0/0 10e1"},
      {"driver without delays",
       {{"RTS", "high"}, {"DELAY_BEFORE", "40"}},
       {true, 0, true, delay},
       "S3/40/0 S2/0/0 01e0",
       40},
      {"delays",
       {{"RTS", "software-low"}, {"DELAY_BEFORE", "60"}, {"DELAY_AFTER", "80"}},
       {true, 0},
       "10e1",
       60,
       80},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Uart played = c.uart;
    Play(&played);
    Set(c.variables);
    Clock::time_point seen;
    {
      const Field field(1, k9600, [&](int address) {
        seen = Clock::now();
        return AnswerAtOnce(address);
      });
      Add(1, 2);
      RunCycle(1);
      EXPECT_EQ(Answer(1, 2), (Outcome{0, Told(2)}));
    }
    Play(nullptr);
    EXPECT_EQ(played.trace, c.trace);
    if (played.rts.size() == 3) {
      EXPECT_GE(seen - played.rts[1].second, std::chrono::milliseconds(c.before_ms));
      const auto driven = played.rts[2].second - played.rts[1].second;
      EXPECT_GE(driven, kFrameTime + std::chrono::milliseconds(c.before_ms + c.after_ms));
      EXPECT_LE(driven,
                kFrameTime + std::chrono::milliseconds(c.before_ms + c.after_ms + kSlackMs));
    }
  }
}

TEST_F(PortSettingsTest, TheLineIsLetGoWhateverEndsTheSending) {
  Uart played{true, 1 << 30};  // never empty
  Play(&played);
  Set({{"RTS", "high"}});
  const Field field(1, k9600, {});
  Add(1, 2, {200});
  EXPECT_LE(RunCycle(1), 200 + kSlackMs);
  EXPECT_EQ(Answer(1, 2), (Outcome{VLM_RS485_NO_ANSWER, {}}));
  EXPECT_EQ(played.trace.back(), '0') << "the device never says that it has sent";
  EXPECT_LE(CountText(played.trace, "b"), 200);

  Add(1, 2, {30000});
  auto cycle = std::async(std::launch::async, RunCycle, 1);
  EXPECT_TRUE(WaitFor(5000, [] {
    const std::lock_guard<std::mutex> lock(uart_mutex);
    return uart->trace.back() == 'b';
  }));
  vlm_rs485_close(1);
  EXPECT_LE(cycle.get(), 5000 + kSlackMs);
  Play(nullptr);
  EXPECT_EQ(played.trace.back(), '0') << "the port was closed";
}

TEST_F(PortSettingsTest, AValueThatCannotBeIsRefusedByTheOpen) {
  Set({});
  const Field field(1, k9600, {});
  const std::tuple<const char*, const char*, int> refused[] = {
      {"RTS", "on", EINVAL},          {"RTS", "HIGH", EINVAL},
      {"DELAY_BEFORE", "-1", EINVAL}, {"DELAY_BEFORE", "101", EINVAL},
      {"DELAY_AFTER", "5ms", EINVAL}, {"DELAY_AFTER", " 5", EINVAL},
      {"SILENCE", "1.75", EINVAL},    {"ECHO", "yes", EINVAL},
      {"RTS", "high", ENOTTY},  // a pseudo-terminal has no RTS
  };
  for (const auto& [name, value, error] : refused) {
    SCOPED_TRACE(std::string(name) + " " + value);
    Set({{name, value}});
    EXPECT_EQ(vlm_rs485_open(1, false, k9600), -1);
    EXPECT_TRUE(errno == error || (error == ENOTTY && errno == EINVAL)) << errno;
    EXPECT_EQ(vlm_rs485_startCom(1), 0);
  }
}

TEST_F(PortSettingsTest, TheSilenceIsExactlyTheGuidesUnlessThePortWantsCharacters) {
  const Bytes broadcast(8, 0);
  const auto run_cycle = [] {
    ::prctl(PR_SET_TIMERSLACK, 20000000ul);  // ns by which a thread's own waits may end late
    RunCycle(1);
  };
  // 31 times 8 characters, and 1.75 ms or 3.5 characters, at 115200 8N1.
  const std::pair<const char*, double> silences[] = {{"", 31 * (0.694 + 1.75)},
                                                     {"characters", 31 * (0.694 + 0.303)}};
  for (const auto& [silence, least_ms] : silences) {
    SCOPED_TRACE(silence);
    Set({{"SILENCE", silence}});
    const Field field(1, VLM_RS485_BAUD_115200, {});
    auto shortest = Clock::duration::max();
    for (int left = 20; left > 0 && shortest > least_ms * 1.5ms; --left) {
      for (unsigned char address = 1; address <= 31; ++address) {
        Add(1, address, {}, broadcast);
      }
      const Clock::time_point begin = Clock::now();
      std::async(std::launch::async, run_cycle).get();
      shortest = std::min(shortest, Clock::now() - begin);
    }
    EXPECT_GE(shortest, (least_ms - 2.5) * 1ms);  // the last broadcast's is kept by the next cycle
    EXPECT_LE(shortest, least_ms * 1.5ms);
  }
}

}  // namespace

}  // namespace tmsc::test
