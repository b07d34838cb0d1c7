#include "tamsel_communication_manager.h"

#include <filesystem>
#include <thread>

#include "access_worker_request/rs485_access_request_libcache.h"
#include "channel/access_channel_manager.h"
#include "support/log_fixture.h"

namespace tmsc {
namespace {

TEST(SignalPipeTest, NotificationsComeInOrderAndAWaitLastsItsTime) {
  SignalPipe pipe;
  const SignalNotification sent[] = {SignalNotification::kOutage, SignalNotification::kStop,
                                     SignalNotification::kOutageRecovery};
  for (const SignalNotification notification : sent) {
    pipe.Notify(notification);
  }
  const test::Stopwatch watch;
  const Deadline deadline(std::chrono::milliseconds(60));
  for (const SignalNotification notification : sent) {
    EXPECT_EQ(pipe.Wait(deadline), notification);
  }
  EXPECT_EQ(pipe.Wait(deadline), std::nullopt);
  EXPECT_GE(watch.Ms(), 60);
}

TEST(SignalPipeTest, AFullPipeNeitherBlocksNorChangesErrno) {
  SignalPipe pipe;
  errno = E2BIG;
  for (int i = 0; i < 100000; ++i) {
    pipe.Notify(SignalNotification::kOutage);
  }
  EXPECT_EQ(errno, E2BIG);
}

using TamselCommunicationManagerTest = test::LogFixture;

// The library's whole life in one process, as tools and benchmarks use it.
TEST_F(TamselCommunicationManagerTest, StartsServesAndEndsInProcess) {
  StartLog();
  Rs485AccessRequestLibcache::Create();
  TamselCommunicationManager::Create();
  AccessChannelManager::Create();
  TamselCommunicationManager* manager = TamselCommunicationManager::GetInstance();
  // An outage that is over before the main loop looks does nothing, a recovery alone neither.
  manager->Post(SignalNotification::kOutageRecovery);
  manager->Post(SignalNotification::kOutage);
  manager->Post(SignalNotification::kOutageRecovery);
  std::thread stopper([manager] {
    test::SleepMs(1200);
    manager->Post(SignalNotification::kStop);
  });
  const test::Stopwatch watch;
  manager->Start();
  EXPECT_GE(watch.Ms(), 1500) << "the pass of the stop lasts its full time";
  EXPECT_LT(watch.Ms(), 1500 + 2 * test::kSlackMs);
  stopper.join();
  EXPECT_EQ(Rs485AccessRequestLibcache::GetInstance(), nullptr);
  manager->Kill();
  TamselCommunicationManager::Destroy();
  AccessChannelManager::Destroy();
  const std::string log = StopLog();
  EXPECT_TRUE(test::Contains(log, "TMSCommMgr Start AppVer:20220725_rkq\n"));
  EXPECT_TRUE(test::Contains(log, "NotifyOutageRecovery"));
  EXPECT_FALSE(test::Contains(log, "PowerO")) << log;
  EXPECT_EQ(test::CountText(log, "Kill comp."), 3) << "a second Kill is harmless, so is the end";
}

TEST_F(TamselCommunicationManagerTest, AKillBeforeTheStartDoesNoHarm) {
  TamselCommunicationManager manager;
  manager.Kill();
  std::thread stopper([&] {
    test::SleepMs(300);
    manager.Post(SignalNotification::kStop);
  });
  manager.Start();
  stopper.join();
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("check/tmsc")));
}

}  // namespace
}  // namespace tmsc
