#include <atomic>
#include <thread>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

TEST(Signals, StopWithAllDevicesInFlight) {
  for (const int signal : {SIGTERM, SIGUSR1}) {
    SCOPED_TRACE(signal);
    DaemonProcess daemon;
    const Devices silent[] = {Devices(31, FaultKind::kSilence), Devices(31, FaultKind::kSilence),
                              Devices(31, FaultKind::kSilence)};
    std::vector<RawClient> clients;
    for (const Devices& devices : silent) {
      const int channel = static_cast<int>(clients.size()) + 1;
      clients.emplace_back(daemon.SocketPath(), devices.Request(channel, 30000));
    }
    for (const Devices& devices : silent) {
      for (int address = 1; address <= 31; ++address) {
        ASSERT_TRUE(WaitFor(5000, [&] { return devices.RequestsReceived(address) == 1; }));
      }
    }
    const long long most_kib = daemon.Status("VmHWM");
    EXPECT_TRUE(most_kib <= 8 * 1024 || TAMSEL_TEST_SANITIZED) << most_kib;
    ExpectStops(daemon, signal);
    EXPECT_TRUE(Contains(ReadFile(daemon.LogPath()), "Kill comp."));
    for (RawClient& client : clients) {
      EXPECT_NE(client.Read(1000).end, StreamEnd::kNone);
    }
  }
}

TEST(Signals, StopsUnderLoadInARow) {
  for (int i = 0; i < 10 && !HasFailure(); ++i) {
    SCOPED_TRACE(i);
    DaemonProcess daemon;
    std::atomic<bool> is_over{false};
    std::vector<std::thread> load;
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      load.emplace_back([&, channel] {
        const Devices devices(8, {FaultKind::kPieces, 4, 5});
        const TcpIpRequest request = devices.Request(channel);
        while (!is_over) {
          Exchange(daemon, request);
          SleepMs(1);
        }
      });
    }
    SleepMs(i * 37 % 100);
    if (i % 3 == 0) {
      daemon.Signal(SIGTERM);
    }
    ExpectStops(daemon, i % 2 == 0 ? SIGTERM : SIGUSR1);
    is_over = true;
    for (std::thread& thread : load) {
      thread.join();
    }
    EXPECT_TRUE(Contains(ReadFile(daemon.LogPath()), "Kill comp."));
  }
}

TEST(Signals, StopDuringStart) {
  for (int i = 0; i < 10; ++i) {
    DaemonProcess daemon({}, {false});
    SleepMs(i * (TAMSEL_TEST_SANITIZED ? 40 : 5));
    daemon.Signal(SIGTERM);
    const int status = daemon.WaitForExit(10000).value_or(-1);
    EXPECT_TRUE(status == 0 || (status == SIGTERM && daemon.Console().empty()))
        << status << ": only before it has handlers may the signal end it";
  }
}

TEST(Signals, RecoveryDuringTheOutageWait) {
  DaemonProcess daemon(Settings{{"LogLevel", "0"}});
  daemon.Signal(SIGUSR2);  // a recovery without an outage, forgotten by the next outage
  SleepMs(600);
  const Stopwatch wait;
  daemon.Signal(SIGPWR);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait in"));
  daemon.Signal(SIGUSR2);
  ExpectServes(daemon);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait out", 20000));
  EXPECT_GE(wait.Ms(), 10000);
  EXPECT_LT(wait.Ms(), 10000 + 5000);
  ASSERT_TRUE(daemon.WaitForConsole("PowerOnStateWork end"));
  const std::string console = daemon.Console();
  std::size_t at = 0;
  for (const char* const text :
       {"NotifyOutageRecovery", "NotifyOutage", "PowerOffStateWork", "outage wait in",
        "NotifyOutageRecovery", "outage wait out", "PowerOffStateWork end", "PowerOnStateWork",
        "PowerOnStateWork end"}) {
    at = console.find(text, at + 1);
    ASSERT_NE(at, std::string::npos) << text << " does not follow in\n" << console;
  }
  ExpectStops(daemon);
  const std::string log = ReadFile(daemon.LogPath());
  EXPECT_TRUE(Contains(log, "PowerOnStateWork end"));
  EXPECT_FALSE(Contains(log, "PowerOffStateWork end")) << "written while switched off";
}

TEST(Signals, StopDuringTheOutageWaitComesAtItsEnd) {
  DaemonProcess daemon(Settings{{"LogLevel", "0"}});
  const Stopwatch watch;
  daemon.Signal(SIGPWR);
  ASSERT_TRUE(daemon.WaitForConsole("outage wait in"));
  daemon.Signal(SIGTERM);
  EXPECT_TRUE(daemon.WaitForConsole("Kill comp.", 5000)) << "at once";
  ExpectStops(daemon, SIGTERM, 10000 + 2500);
  EXPECT_GE(watch.Ms(), 10000);
}

/// Sends the signals in turn for `duration_ms`.
std::thread Storm(const DaemonProcess& daemon, int signal, int next, int duration_ms) {
  return std::thread([&daemon, signal, next, watch = Stopwatch(), duration_ms] {
    while (watch.Ms() < duration_ms) {
      daemon.Signal(signal);
      std::this_thread::sleep_for(std::chrono::microseconds(50));
      daemon.Signal(next);
    }
  });
}

TEST(Signals, StormDoesNotDisturbExchanges) {
  DaemonProcess daemon(Settings{{"LogLevel", "3"}});
  const Devices devices(8, {FaultKind::kPieces, 4, 5});
  std::thread storm = Storm(daemon, SIGPWR, SIGUSR2, 2000);
  for (int i = 0; i < 30; ++i) {
    ExpectAnswered(Exchange(daemon, devices.Request(i % kMaxChannel + 1)), 8);
  }
  storm.join();
  EXPECT_TRUE(daemon.IsRunning());
}

TEST(Signals, StormDoesNotHoldUpAStop) {
  DaemonProcess daemon(Settings{{"LoggerComLogMaxFileSize", "500MB"}});
  // Recoveries only: an outage among them would add its 10 s.
  std::thread storm = Storm(daemon, SIGUSR2, SIGUSR2, 1500);
  SleepMs(200);
  ExpectStops(daemon);
  storm.join();
}

}  // namespace
}  // namespace tmsc::test
