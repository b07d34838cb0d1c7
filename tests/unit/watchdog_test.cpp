#include "watchdog/watchdog.h"

#include <sys/socket.h>
#include <sys/un.h>

#include "support/log_fixture.h"
#include "support/shell.h"
#include "utility/descriptor.h"

namespace tmsc {
namespace {

using WatchdogTest = test::LogFixture;

TEST_F(WatchdogTest, TouchesAgainAndAgainWhateverIsInThePath) {
  const std::string path = folder_.Path("a b/\"quoted\" $(x) 'y'");
  StartLog({{"TamselComWatchdogFilePath", path}, {"WatchdogFileUpdateInterval", "1"}});
  Watchdog watchdog;
  watchdog.StartWatchdog();
  watchdog.StartWatchdog();
  for (int i = 0; i < 2; ++i) {
    EXPECT_TRUE(test::WaitFor(5000, [&] { return std::filesystem::remove(path); })) << i;
  }
  EXPECT_TRUE(test::Contains(StopLog(), "Wdog Set Wdog interval [1000] fl path[" + path + "]"));
}

TEST_F(WatchdogTest, AFailingTouchIsLoggedWithItsRawStatus) {
  const std::string path = folder_.Path("LoggerSetting.xml/tmsc");  // no folder
  StartLog({{"TamselComWatchdogFilePath", path}, {"WatchdogFileUpdateInterval", "-3"}});
  {
    Watchdog watchdog;
    watchdog.StartWatchdog();
    test::SleepMs(600);
  }
  const std::string log = StopLog();
  EXPECT_TRUE(test::Contains(log, "Wdog status [256] [/usr/bin/touch \"" + path + "\"]")) << log;
  EXPECT_TRUE(test::Contains(log, "Set Wdog interval [30000]")) << log;
}

/// A call of check_watchdog, with what it saw before dated back: whether it ran its command.
class CheckWatchdogTest : public test::LogFixture {
 protected:
  bool Restarts(long untouched_seconds, long unserved_seconds = 0) const {
    const std::string state = folder_.Path("state");
    std::filesystem::remove(state);
    EXPECT_FALSE(Check());
    std::string touched;
    long since = 0, unserved_since = 0;
    std::ifstream(state) >> touched >> since >> unserved_since;
    std::ofstream(state) << touched << ' ' << since - untouched_seconds << ' '
                         << since - unserved_seconds;
    return Check();
  }
  bool Check() const {
    const std::string command = TAMSEL_BIN_DIR "/check_watchdog " + folder_.Path("state");
    const test::ShellResult run = test::RunShell(command + " echo restarted");
    EXPECT_EQ(run.exit_code, 0) << run.output;
    return test::Contains(run.output, "restarted");
  }
  void Listen() {
    listener_.Reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{AF_UNIX, {}};
    folder_.Path("socket").copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(0, ::bind(listener_.Get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, ::listen(listener_.Get(), 1));
  }

  Descriptor listener_;
};

TEST_F(CheckWatchdogTest, ReadsTheIntervalAsTheDaemonDoes) {
  Listen();
  test::WriteFile(folder_.Path("tmsc"), "");
  const std::pair<std::string, long> intervals[] = {
      {"1", 1},
      {" +7s", 7},
      {"08", 8},
      {"09", 9},
      {"00000000000000000010", 10},
      {"", 30},
      {"-3", 30},
      {"2147483648", 30},
      {"9223372036854775807", 30},
      {"2147483647", 2147483},
      {"20<WatchdogFileUpdateInterval>5</WatchdogFileUpdateInterval>", 20},
      {"6</WatchdogFileUpdateInterval><!-- 9 --><WatchdogFileUpdateInterval><![CDATA[9]]>", 30}};
  for (const auto& [text, seconds] : intervals) {
    UseSettings({{"TamselComWatchdogFilePath", folder_.Path("tmsc")},
                 {"WatchdogFileUpdateInterval", text}});
    EXPECT_FALSE(Restarts(3 * seconds + 5)) << text;
    EXPECT_TRUE(Restarts(3 * seconds + 11)) << text;
  }
  UseSettings(
      {{"TamselComWatchdogFilePath", folder_.Path("tmsc")}, {"WatchdogFileUpdateInterval", "0"}});
  EXPECT_FALSE(Check()) << "touched once only";
  UseSettings({{"TamselComWatchdogFilePath", folder_.Path("missing")}});
  EXPECT_FALSE(Restarts(1000)) << "the daemon may be unable to make it";
}

TEST_F(CheckWatchdogTest, NobodyListensAtTheSocket) {
  const auto is_restarted_late_only = [&] { return !Restarts(0, 40) && Restarts(0, 46); };
  EXPECT_TRUE(is_restarted_late_only()) << "no socket";
  Listen();
  EXPECT_FALSE(Restarts(0, 46));
  EXPECT_LT(::accept(listener_.Get(), nullptr, nullptr), 0) << "the daemon is bothered";
  listener_.Reset();
  EXPECT_TRUE(is_restarted_late_only()) << "the service has ended";
  EXPECT_FALSE(Check()) << "again at once";
}

}  // namespace
}  // namespace tmsc
