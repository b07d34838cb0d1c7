#include "worker_thread/channel.h"

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "channel/access_channel_manager.h"
#include "support/wait.h"
#include "worker_thread/thread_group.h"

namespace tmsc {
namespace {

using Order = std::shared_ptr<std::vector<int>>;

class Work : public Request {
 public:
  Work(Order order, int number) : order_(order), number_(number) {}
  void Execute() override {
    test::SleepMs(1);
    order_->push_back(number_);  // no lock: one worker
  }

 private:
  const Order order_;
  const int number_;
};

TEST(ChannelTest, RequestsRunInOrderAndAllRunBeforeTheEnd) {
  const Order order = std::make_shared<std::vector<int>>();
  std::vector<int> expected;
  {
    Channel channel;
    channel.StartWorkers();
    channel.PutRequest(nullptr);
    for (int i = 0; i < 100; ++i) {
      expected.push_back(i);
      channel.PutRequest(new Work(order, i));
    }
  }
  EXPECT_EQ(*order, expected);
  EXPECT_EQ(order.use_count(), 1) << "requests are left over";
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
  for (int round = 1; round <= 3; ++round) {
    for (int i = 0; i < 31; ++i) {
      group.Start(runnable);
    }
    group.JoinAll();
    EXPECT_EQ(runnable.count, 31 * round);
  }
}

}  // namespace
}  // namespace tmsc
