#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <random>
#include <thread>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

// One pass and what the stop itself may take.
constexpr int kStopMs = 500 + 2500;

int NumberFromEnvironment(const char* name, int otherwise) {
  const char* const text = std::getenv(name);
  return text != nullptr ? std::atoi(text) : otherwise;
}

void ExpectStops(DaemonProcess& daemon, int limit_ms = kStopMs) {
  const Stopwatch watch;
  const auto status = daemon.WaitForExit(limit_ms + kSlackMs + 5000);
  ASSERT_TRUE(status.has_value()) << "still running";
  EXPECT_EQ(*status, kExitedWell);
  EXPECT_LT(watch.Ms(), limit_ms + kSlackMs);
  EXPECT_NE(daemon.Console().find("Kill comp."), std::string::npos);
  EXPECT_NE(ReadFile(daemon.LogPath()).find("Kill comp."), std::string::npos);
}

/// Position of each text, in order; fails when one does not come behind the one before.
void ExpectOrder(const std::string& console, const std::vector<std::string>& texts) {
  std::size_t at = 0;
  for (const std::string& text : texts) {
    at = console.find(text, at);
    ASSERT_NE(at, std::string::npos) << text << " does not follow in\n" << console;
    at += text.size();
  }
}

TEST(Signals, StopWithSilentDevicesInFlight) {
  for (const int signal : {SIGTERM, SIGUSR1}) {
    SCOPED_TRACE(signal);
    DaemonProcess daemon;
    Devices silent[] = {Devices(31, FaultKind::kSilence), Devices(31, FaultKind::kSilence),
                        Devices(31, FaultKind::kSilence)};
    std::vector<RawClient> clients;
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      clients.emplace_back(daemon.SocketPath(), silent[channel - 1].Request(channel, 30000));
    }
    for (Devices& devices : silent) {
      EXPECT_TRUE(WaitFor(5000, [&] { return devices->RequestsReceived(31) == 1; }));
    }
    daemon.Signal(signal);
    ExpectStops(daemon);
    for (RawClient& client : clients) {
      EXPECT_NE(client.Read(1000).end, StreamEnd::kNone);
    }
  }
}

/// Requests on all channels from threads of their own until the object goes.
class Load {
 public:
  explicit Load(const DaemonProcess& daemon) {
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      threads_.emplace_back([this, &daemon, channel] { Run(daemon, channel); });
    }
  }
  ~Load() {
    is_over_ = true;
    for (std::thread& thread : threads_) {
      thread.join();
    }
  }
  Load(const Load&) = delete;
  Load& operator=(const Load&) = delete;

  int Exchanges() const { return exchanges_; }
  int Failures() const { return failures_; }

 private:
  void Run(const DaemonProcess& daemon, int channel) {
    const Devices devices(8, {FaultKind::kPieces, 4, 5});
    const TcpIpRequest request = devices.Request(channel, 10000);
    while (!is_over_) {
      const ResponseReceiveData response = Exchange(daemon, request, 5000);
      ++exchanges_;
      for (int address = 1; address <= 8; ++address) {
        const auto answer = DeviceAnswer(response, address);
        if (!answer || answer->frame != AnswerFrame(address)) {
          ++failures_;
        }
      }
      if (response.receive_data.status == -100) {
        SleepMs(1);
      }
    }
  }

  std::atomic<bool> is_over_{false};
  std::atomic<int> exchanges_{0};
  std::atomic<int> failures_{0};
  std::vector<std::thread> threads_;
};

TEST(Signals, StopsUnderLoadInARow) {
  std::mt19937 random(1);
  const int count = NumberFromEnvironment("TAMSEL_STOP_COUNT", 10);
  for (int i = 0; i < count && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    DaemonProcess daemon;
    const Load load(daemon);
    SleepMs(static_cast<int>(random() % 100));
    daemon.Signal(i % 2 == 0 ? SIGTERM : SIGUSR1);
    if (i % 3 == 0) {
      daemon.Signal(SIGTERM);
    }
    ExpectStops(daemon);
  }
}

TEST(Signals, StopDuringStart) {
  std::mt19937 random(2);
  for (int i = 0; i < 10; ++i) {
    const int delay_ms = static_cast<int>(random() % (TAMSEL_TEST_SANITIZED ? 400 : 50));
    SCOPED_TRACE(std::to_string(i) + " after ms " + std::to_string(delay_ms));
    DaemonProcess daemon({}, {false});
    SleepMs(delay_ms);
    daemon.Signal(SIGTERM);
    const auto status = daemon.WaitForExit(kStopMs + kSlackMs);
    ASSERT_TRUE(status.has_value());
    if (*status != kExitedWell) {
      EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGTERM) << *status;
      EXPECT_EQ(daemon.Console(), "") << "only before it has handlers may the signal end it";
    }
  }
}

TEST(Signals, RecoveryDuringTheOutageWait) {
  DaemonProcess daemon(Settings{{"LogLevel", "0"}});
  daemon.Signal(SIGUSR2);  // a recovery without an outage, forgotten by the next outage
  SleepMs(600);
  daemon.Signal(SIGPWR);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait in", 1000 + kSlackMs));
  const Stopwatch wait;
  SleepMs(1000);
  daemon.Signal(SIGUSR2);
  EXPECT_TRUE(daemon.WaitForConsole("NotifyOutageRecovery", kSlackMs)) << "reported at once";
  EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(1)).receive_data.status, 0);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait out", 12000));
  EXPECT_GE(wait.Ms(), 9900);
  EXPECT_LT(wait.Ms(), 10000 + kSlackMs);
  ASSERT_TRUE(daemon.WaitForConsole("PowerOnStateWork end", kSlackMs));
  ExpectOrder(daemon.Console(),
              {"NotifyOutageRecovery", "NotifyOutage", "PowerOffStateWork", "outage wait in",
               "NotifyOutageRecovery", "outage wait out", "PowerOffStateWork end",
               "PowerOnStateWork", "PowerOnStateWork end"});
  daemon.Signal(SIGTERM);
  ExpectStops(daemon);
  const std::string log = ReadFile(daemon.LogPath());
  ExpectOrder(log, {"outage wait out", "PowerOnStateWork end"});
  EXPECT_EQ(log.find("PowerOffStateWork end"), std::string::npos) << "written while switched off";
}

TEST(Signals, StopDuringTheOutageWaitComesAtItsEnd) {
  DaemonProcess daemon(Settings{{"LogLevel", "0"}});
  daemon.Signal(SIGPWR);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait in", 1000 + kSlackMs));
  daemon.Signal(SIGTERM);
  EXPECT_TRUE(daemon.WaitForConsole("Kill comp.", kSlackMs)) << "at once";
  ExpectStops(daemon, 10000 + 2500);
}

/// Sends the signals in turn until the time is over.
std::thread Storm(const DaemonProcess& daemon, const std::vector<int>& signals, int duration_ms,
                  int pause_us) {
  return std::thread([&daemon, signals, duration_ms, pause_us] {
    const Stopwatch watch;
    for (std::size_t i = 0; watch.Ms() < duration_ms; ++i) {
      daemon.Signal(signals[i % signals.size()]);
      std::this_thread::sleep_for(std::chrono::microseconds(pause_us));
    }
  });
}

TEST(Signals, StormDoesNotDisturbExchanges) {
  DaemonProcess daemon(Settings{{"LogLevel", "3"}});
  Load load(daemon);
  Storm(daemon, {SIGPWR, SIGUSR2}, 2000, 100).join();
  EXPECT_GT(load.Exchanges(), 10);
  EXPECT_EQ(load.Failures(), 0);
  EXPECT_TRUE(daemon.IsRunning());
}

TEST(Signals, StormDoesNotHoldUpAStop) {
  DaemonProcess daemon(Settings{{"LoggerComLogMaxFileSize", "500MB"}});
  // Recoveries only: an outage among them would add its 10 s.
  std::thread storm = Storm(daemon, {SIGUSR2}, 1500, 0);
  SleepMs(200);
  daemon.Signal(SIGTERM);
  ExpectStops(daemon);
  storm.join();
}

}  // namespace
}  // namespace tmsc::test
