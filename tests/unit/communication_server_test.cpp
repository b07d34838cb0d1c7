#include "communication_server.h"

#include <Poco/Thread.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <future>

#include "channel/access_channel_manager.h"
#include "request_builder.h"
#include "socket_manager/tcp_socket_manager.h"
#include "support/failing_memory.h"
#include "support/log_fixture.h"
#include "support/raw_client.h"
#include "support/tcp_listener.h"
#include "tamsel_client.h"

namespace tmsc {
namespace {

/// The request service within the test's own process.
class CommunicationServerTest : public test::LogFixture {
 protected:
  CommunicationServerTest() {
    StartLog();
    AccessChannelManager::Create();
    TCPSocketManager::Create();
  }
  ~CommunicationServerTest() override {
    if (thread_.isRunning()) {
      server_->Stop();
      thread_.join();
    }
    server_.reset();
    AccessChannelManager::Destroy();
    TCPSocketManager::Destroy();
  }

  void Serve() {
    server_ = std::make_unique<CommunicationServer>();
    thread_.start(*server_);
    ASSERT_TRUE(test::WaitFor(5000, [&] { return Status(MakeTcpIpRequest(1)) == 0; }));
  }
  template <typename Request>
  int Status(const Request& request) const {
    const ExchangeResult result = TamselClient(folder_.Path("socket")).Exchange(request, 5000);
    return result.outcome == Outcome::kAnswered ? int{result.response.receive_data.status} : -100;
  }

  std::unique_ptr<CommunicationServer> server_;
  Poco::Thread thread_;
};

TEST_F(CommunicationServerTest, WaitingClientsAreClosedWhenTheServiceEnds) {
  Serve();
  test::RawClient waiting(folder_.Path("socket"));
  test::SleepMs(50);
  rlimit limit{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &limit));
  test::RawClient last;
  const rlimit none = {static_cast<rlim_t>(::fcntl(0, F_DUPFD_CLOEXEC, 0)), limit.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  last.Connect(folder_.Path("socket"));
  EXPECT_TRUE(thread_.tryJoin(3000));
  EXPECT_EQ(waiting.Read(2000).end, test::StreamEnd::kEnd);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &limit));
  EXPECT_TRUE(test::Contains(StopLog(), "[E] CommSvr Fail to accept\n"));
}

// Memory runs out at each place in turn, for one allocation and for a row of them: whatever became
// of that request, its client is let go and the next one finds the service as it was.
TEST_F(CommunicationServerTest, AFailedAllocationEndsOneRequestOnly) {
  const test::AnsweringDevice device({0, 1, 0, 0, 0, 5, 1, 3, 2, 0, 7});
  TcpIpRequest tcp = MakeTcpIpRequest(1);
  ASSERT_FALSE(AddTcpIpDevice(tcp, 1, "127.0.0.1", device.Port(), 1000,
                              {0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1}));
  const Rs485Request rs485 = MakeRs485Request(1, 3);
  Serve();
  ASSERT_EQ(0, Status(tcp));
  ASSERT_EQ(8, Status(rs485));
  for (const bool is_tcp : {true, false}) {
    for (const int row : {1, 1000000}) {
      bool has_failed = true;
      for (int first = 1; has_failed; first += row == 1 ? 1 : 7) {
        SCOPED_TRACE(std::to_string(first) + " and on: " + std::to_string(row));
        test::RawClient client(folder_.Path("socket"));
        test::FailAllocations(first, first + row - 1);
        client.Send(is_tcp ? static_cast<const void*>(&tcp) : &rs485,
                    is_tcp ? sizeof(tcp) : sizeof(rs485));
        EXPECT_NE(client.Read(3000).end, test::StreamEnd::kNone) << "left waiting";
        has_failed = test::HasAllocationFailed();
        test::FailAllocations(0, 0);
        ASSERT_TRUE(test::WaitFor(2000, [&] { return Status(tcp) == 0 && Status(rs485) == 8; }));
      }
    }
  }
}

TEST_F(CommunicationServerTest, ASlowReaderHoldsUpNobodyElse) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  const Descriptor client(ends[1]);
  const int small = 1;
  ::setsockopt(ends[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
  DataHeader header{};
  header.type = kRequestDataTypeTCPIP;
  header.channel_index = 2;
  ASSERT_EQ(1, ::send(client.Get(), "x", 1, 0));  // a payload that is too short is answered
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  channels->SetUsedState(2, true);
  auto served = std::async(std::launch::async, [&] {
    Poco::AutoPtr<CommSocketWork> work(new CommSocketWork(ends[0], header));
    work->Execute();
  });
  test::SleepMs(200);
  const test::Stopwatch watch;
  EXPECT_TRUE(channels->GetUsedState(2)) << "its response is on the way";
  EXPECT_LT(watch.Ms(), 200);
  served.get();
  EXPECT_FALSE(channels->GetUsedState(2));
}

TEST_F(CommunicationServerTest, AChannelThatDoesNotExistDoesNoHarm) {
  int ends[2];
  ASSERT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
  test::RawClient client{Descriptor(ends[1])};
  DataHeader header{};
  header.channel_index = 7;
  Poco::AutoPtr<CommSocketWork> work(new CommSocketWork(ends[0], header));
  work->Execute();
  EXPECT_EQ(client.Read(1000).end, test::StreamEnd::kEnd);
}

}  // namespace
}  // namespace tmsc
