#include "worker_thread/channel.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "channel/access_channel_manager.h"
#include "support/wait.h"
#include "worker_thread/thread_group.h"

namespace tmsc {
namespace {

using Count = std::shared_ptr<int>;

struct Work : Request {
  Work(Count count, int number) : count_(count), number_(number) {}
  void Execute() override {
    test::SleepMs(1);
    EXPECT_EQ((*count_)++, number_);  // no lock: one worker
  }
  const Count count_;
  const int number_;
};

TEST(ChannelTest, RequestsRunInOrderAndAllRunBeforeTheEnd) {
  const Count count = std::make_shared<int>(0);
  {
    Channel channel;
    channel.StartWorkers();
    channel.PutRequest(nullptr);
    for (int i = 0; i < 100; ++i) {
      channel.PutRequest(new Work(count, i));
    }
  }
  EXPECT_EQ(*count, 100);
  EXPECT_EQ(count.use_count(), 1) << "requests are left over";
}

TEST(AccessChannelManagerTest, FrontsAndBusyFlags) {
  AccessChannelManager manager;
  EXPECT_EQ(manager.AccessChannelTCPIP(1), manager.AccessChannelTCPIP(1));
  EXPECT_NE(manager.AccessChannelTCPIP(1), manager.AccessChannelTCPIP(2));
  EXPECT_NE(manager.AccessChannelRS485(-1), nullptr);
  for (const int channel : {3, 700000}) {
    for (const bool is_used : {true, false}) {
      manager.SetUsedState(channel, is_used);
      EXPECT_EQ(manager.GetUsedState(channel), is_used);
      EXPECT_FALSE(manager.GetUsedState(2));
    }
  }
}

TEST(ThreadGroupTest, JoinAllWaitsForEveryRunnable) {
  struct : Poco::Runnable {
    void run() override {
      test::SleepMs(20);
      ++count;
      throw Poco::RuntimeException("a runnable that fails ends all the same");
    }
    std::atomic<int> count{0};
  } runnable;
  ThreadGroup group;
  group.Start(runnable);
  group.Start(runnable);
  group.JoinAll();
  EXPECT_EQ(runnable.count, 2);
}

}  // namespace
}  // namespace tmsc
