#include "watchdog/watchdog.h"

#include "support/log_fixture.h"

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

}  // namespace
}  // namespace tmsc
