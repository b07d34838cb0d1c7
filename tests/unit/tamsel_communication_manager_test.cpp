#include "tamsel_communication_manager.h"

#include <future>

#include "access_worker_request/rs485_access_request_libcache.h"
#include "channel/access_channel_manager.h"
#include "support/log_fixture.h"

namespace tmsc {
namespace {

TEST(SignalPipeTest, AFullPipeNeitherBlocksNorChangesErrno) {
  SignalPipe pipe;
  errno = E2BIG;
  for (int i = 0; i < 100000; ++i) {
    pipe.Notify(SignalNotification::kOutage);
  }
  EXPECT_EQ(errno, E2BIG);
}

using TamselCommunicationManagerTest = test::LogFixture;

/// Runs the main loop and stops it after a time; how long it ran.
int Serve(TamselCommunicationManager& manager, int stop_after_ms) {
  const test::Stopwatch watch;
  const auto stopper = std::async(std::launch::async, [&] {
    test::SleepMs(stop_after_ms);
    manager.Post(SignalNotification::kStop);
  });
  manager.Start();
  return watch.Ms();
}

// The library's whole life in one process, as tools and benchmarks use it.
TEST_F(TamselCommunicationManagerTest, StartsServesAndEndsInProcess) {
  StartLog();
  Rs485AccessRequestLibcache::Create();
  AccessChannelManager::Create();
  {
    TamselCommunicationManager manager;
    // An outage that is over before the main loop looks does nothing, a recovery alone neither.
    manager.Post(SignalNotification::kOutageRecovery);
    manager.Post(SignalNotification::kOutage);
    manager.Post(SignalNotification::kOutageRecovery);
    Serve(manager, 1200);
    EXPECT_EQ(Rs485AccessRequestLibcache::GetInstance(), nullptr);
    manager.Kill();
  }
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
  EXPECT_GE(Serve(manager, 300), 500) << "the pass of the stop lasts its full time";
  EXPECT_FALSE(std::filesystem::exists(folder_.Path("check/tmsc")));
}

}  // namespace
}  // namespace tmsc
