#include "watchdog/watchdog.h"

#include <filesystem>

#include "support/log_fixture.h"

namespace tmsc {
namespace {

namespace fs = std::filesystem;

using WatchdogTest = test::LogFixture;

TEST_F(WatchdogTest, TouchesAgainAndAgainWhateverIsInThePath) {
  const std::string path = folder_.Path("a b/\"quoted\" $(x) 'y'");
  StartLog({{"TamselComWatchdogFilePath", path}, {"WatchdogFileUpdateInterval", "1"}});
  Watchdog watchdog;
  watchdog.StartWatchdog();
  watchdog.StartWatchdog();
  ASSERT_TRUE(test::WaitFor(5000, [&] { return fs::exists(path); }));
  fs::remove(path);
  EXPECT_TRUE(test::WaitFor(5000, [&] { return fs::exists(path); }));
  EXPECT_NE(StopLog().find("Wdog Set Wdog interval [1000] fl path[" + path + "]"),
            std::string::npos);
}

TEST_F(WatchdogTest, AFailingTouchIsLoggedWithItsRawStatus) {
  test::WriteFile(folder_.Path("file"), "no folder");
  const std::string path = folder_.Path("file/tmsc");
  StartLog({{"TamselComWatchdogFilePath", path}, {"WatchdogFileUpdateInterval", "-3"}});
  {
    Watchdog watchdog;
    watchdog.StartWatchdog();
    test::SleepMs(600);
  }
  const std::string log = StopLog();
  EXPECT_NE(log.find("Wdog status [256] [/usr/bin/touch \"" + path + "\"]"), std::string::npos)
      << log;
  EXPECT_NE(log.find("Set Wdog interval [30000]"), std::string::npos);
}

}  // namespace
}  // namespace tmsc
