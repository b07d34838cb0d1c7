#include "worker_thread/channel.h"

#include <Poco/AutoPtr.h>
#include <Poco/Exception.h>

#include <future>

#include "access_worker_request/access_request.h"
#include "channel/access_channel_manager.h"
#include "support/log_fixture.h"
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

class AccessChannelManagerTest : public test::LogFixture {
 protected:
  AccessChannelManager manager;
};

TEST_F(AccessChannelManagerTest, FrontsAndBusyFlags) {
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

TEST_F(AccessChannelManagerTest, TheLogHasTheChangesInTheirOrder) {
  StartLog();
  std::vector<std::future<void>> threads;
  for (const bool use : {true, false, true, false}) {
    threads.push_back(std::async(std::launch::async, [this, use] {
      for (int i = 0; i < 500; ++i) {
        manager.SetUsedState(1, use);
        manager.GetUsedState(1);
      }
    }));
  }
  threads.clear();  // waits
  char state = '0';
  int count = 0;
  for (const std::string& line : test::Lines(StopLog())) {
    const std::size_t before = line.find("used:[");
    if (before != std::string::npos) {
      ASSERT_EQ(line[before + 6], state) << line;
      state = line[line.size() - 2];
      ++count;
    }
  }
  EXPECT_EQ(count, 4000);
}

TEST(AccessRequestTest, ExecuteIsItsSubclasses) {
  std::promise<std::shared_ptr<CommunicationResult>> promise;
  Poco::AutoPtr<AccessRequest> request(new AccessRequest(&promise));
  const auto result = request->GetFuture();
  request->Execute();
  EXPECT_EQ(result.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
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
