#include "watchdog/watchdog.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "support/files.h"
#include "utility/deadline.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

namespace fs = std::filesystem;

class WatchdogTest : public ::testing::Test {
 protected:
  void Configure(const std::string& watchdog_path, const std::string& interval) {
    std::ofstream(folder_.Path("s.xml"))
        << "<LoggerSetting><TamselComWatchdogFilePath>" << watchdog_path
        << "</TamselComWatchdogFilePath><WatchdogFileUpdateInterval>" << interval
        << "</WatchdogFileUpdateInterval><SdcardPath>" << folder_.Path("card")
        << "</SdcardPath></LoggerSetting>";
    ::setenv("TAMSEL_SETTING_FILE", folder_.Path("s.xml").c_str(), 1);
    LoggerSettingManager::Create();
    LoggerLog::Setup();
  }
  bool AwaitFile(const std::string& path) {
    const Deadline deadline(std::chrono::seconds(5));
    while (!fs::exists(path) && !deadline.HasPassed()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return fs::exists(path);
  }
  std::string EndLog() {
    LoggerLog::Shutdown();
    return StringUtil::LoadFromFile(folder_.Path("card/velmorahome/Log/LoggerCom.log"));
  }

  test::TempFolder folder_;
};

TEST_F(WatchdogTest, TouchesAgainAndAgainWhateverIsInThePath) {
  const std::string path = folder_.Path("a b/\"quoted\" $(x) 'y'");
  Configure(path, "1");
  Watchdog watchdog;
  watchdog.StartWatchdog();
  watchdog.StartWatchdog();
  ASSERT_TRUE(AwaitFile(path));
  fs::remove(path);
  EXPECT_TRUE(AwaitFile(path));
  EXPECT_NE(EndLog().find("Wdog Set Wdog interval [1000] fl path[" + path + "]"),
            std::string::npos);
}

TEST_F(WatchdogTest, AFailingTouchIsLoggedWithItsRawStatus) {
  std::ofstream(folder_.Path("file")) << "no folder";
  const std::string path = folder_.Path("file/tmsc");
  Configure(path, "-3");
  {
    Watchdog watchdog;
    watchdog.StartWatchdog();
    std::this_thread::sleep_for(std::chrono::milliseconds(600));
  }
  const std::string log = EndLog();
  EXPECT_NE(log.find("Wdog status [256] [/usr/bin/touch \"" + path + "\"]"), std::string::npos)
      << log;
  EXPECT_NE(log.find("Set Wdog interval [30000]"), std::string::npos);
}

}  // namespace
}  // namespace tmsc
