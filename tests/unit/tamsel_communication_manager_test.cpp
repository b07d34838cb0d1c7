#include "tamsel_communication_manager.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>

#include "channel/access_channel_manager.h"
#include "log/logger_log.h"
#include "logger_setting/logger_setting_manager.h"
#include "support/files.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

using Clock = std::chrono::steady_clock;

TEST(SignalPipeTest, NotificationsComeInOrderAndAWaitLastsItsTime) {
  SignalPipe pipe;
  const SignalNotification sent[] = {SignalNotification::kOutage, SignalNotification::kStop,
                                     SignalNotification::kOutageRecovery};
  for (const SignalNotification notification : sent) {
    pipe.Notify(notification);
  }
  const auto start = Clock::now();
  const Deadline deadline(std::chrono::milliseconds(60));
  for (const SignalNotification notification : sent) {
    EXPECT_EQ(pipe.Wait(deadline), notification);
  }
  EXPECT_EQ(pipe.Wait(deadline), std::nullopt);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(60));
}

TEST(SignalPipeTest, AFullPipeNeitherBlocksNorChangesErrno) {
  SignalPipe pipe;
  errno = E2BIG;
  for (int i = 0; i < 100000; ++i) {
    pipe.Notify(SignalNotification::kOutage);
  }
  EXPECT_EQ(errno, E2BIG);
}

// The library's whole life in one process, as tools and benchmarks use it.
TEST(TamselCommunicationManagerTest, StartsServesAndEndsInProcess) {
  const test::TempFolder folder;
  std::ofstream(folder.Path("s.xml"))
      << "<LoggerSetting><ComSocketPath>" << folder.Path("s/tamsel.com") << "</ComSocketPath>"
      << "<SdcardPath>" << folder.Path("card") << "</SdcardPath><TamselComWatchdogFilePath>"
      << folder.Path("check/tmsc") << "</TamselComWatchdogFilePath></LoggerSetting>";
  ::setenv("TAMSEL_SETTING_FILE", folder.Path("s.xml").c_str(), 1);
  LoggerSettingManager::Create();
  LoggerLog::Setup();
  TamselCommunicationManager::Create();
  AccessChannelManager::Create();
  FileUtil::Create();
  TamselCommunicationManager* manager = TamselCommunicationManager::GetInstance();
  // An outage that is over before the main loop looks does nothing, a recovery alone neither.
  manager->Post(SignalNotification::kOutageRecovery);
  manager->Post(SignalNotification::kOutage);
  manager->Post(SignalNotification::kOutageRecovery);
  std::thread stopper([manager] {
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    manager->Post(SignalNotification::kStop);
  });
  const auto start = Clock::now();
  manager->Start();
  const auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(1500)) << "the pass of the stop lasts its full time";
  EXPECT_LT(elapsed, std::chrono::milliseconds(2500));
  stopper.join();
  manager->Kill();
  TamselCommunicationManager::Destroy();
  AccessChannelManager::Destroy();
  LoggerLog::Shutdown();
  const std::string log =
      StringUtil::LoadFromFile(folder.Path("card/velmorahome/Log/LoggerCom.log"));
  EXPECT_NE(log.find("TMSCommMgr Start AppVer:20220725_rkq\n"), std::string::npos);
  EXPECT_NE(log.find("NotifyOutageRecovery"), std::string::npos);
  EXPECT_EQ(log.find("PowerO"), std::string::npos) << log;
  const std::size_t first = log.find("Kill comp.");
  ASSERT_NE(first, std::string::npos);
  EXPECT_NE(log.find("Kill comp.", first + 1), std::string::npos) << "a second Kill is harmless";
}

}  // namespace
}  // namespace tmsc
