#include "worker_thread/channel.h"

#include <Poco/Exception.h>
#include <Poco/Runnable.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "access_worker_request/access_request.h"
#include "channel/access_channel_manager.h"
#include "worker_thread/thread_group.h"

namespace tmsc {
namespace {

std::atomic<int> living{0};

class Work : public Request {
 public:
  Work(std::vector<int>& order, int number) : order_(order), number_(number) { ++living; }
  ~Work() override { --living; }
  void Execute() override {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
    order_.push_back(number_);  // no lock: one worker
  }

 private:
  std::vector<int>& order_;
  int number_;
};

TEST(ChannelTest, RequestsRunInOrderAndAllRunBeforeTheEnd) {
  std::vector<int> order;
  {
    Channel channel;
    channel.StartWorkers();
    channel.PutRequest(nullptr);
    for (int i = 0; i < 100; ++i) {
      channel.PutRequest(new Work(order, i));
    }
  }
  ASSERT_EQ(order.size(), 100u);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  }
  EXPECT_EQ(living, 0);
}

TEST(ChannelTest, AnIdleChannelEndsWithinOneWait) {
  const auto start = std::chrono::steady_clock::now();
  { Channel(4, 1).StartWorkers(); }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2000));
}

TEST(AccessChannelManagerTest, FrontsAndBusyFlags) {
  AccessChannelManager::Create();
  AccessChannelManager* manager = AccessChannelManager::GetInstance();
  EXPECT_EQ(manager->AccessChannelTCPIP(1), manager->AccessChannelTCPIP(1));
  EXPECT_NE(manager->AccessChannelTCPIP(1), manager->AccessChannelTCPIP(2));
  EXPECT_NE(manager->AccessChannelRS485(-1), nullptr);
  EXPECT_FALSE(manager->GetUsedState(3));
  manager->SetUsedState(3, true);
  EXPECT_TRUE(manager->GetUsedState(3));
  EXPECT_FALSE(manager->GetUsedState(2));
  manager->SetUsedState(3, false);
  EXPECT_FALSE(manager->GetUsedState(3));
  AccessChannelManager::Destroy();
}

TEST(ThreadGroupTest, JoinAllWaitsForEveryRunnable) {
  class Count : public Poco::Runnable {
   public:
    explicit Count(std::atomic<int>& count) : count_(count) {}
    void run() override {
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
      ++count_;
      throw Poco::RuntimeException("a runnable that fails ends all the same");
    }

   private:
    std::atomic<int>& count_;
  };
  std::atomic<int> count{0};
  Count runnable(count);
  ThreadGroup group;
  for (int round = 1; round <= 3; ++round) {
    for (int i = 0; i < 31; ++i) {
      group.Start(runnable);
    }
    group.JoinAll();
    EXPECT_EQ(count, 31 * round);
  }
}

}  // namespace
}  // namespace tmsc
