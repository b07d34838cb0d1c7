#include "communication_server.h"

#include <fcntl.h>
#include <sys/resource.h>

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
    StartLog({{"LogLevel", "0"}});
    AccessChannelManager::Create();
    TCPSocketManager::Create();
    server_ = std::make_unique<CommunicationServer>();
    ::getrlimit(RLIMIT_NOFILE, &descriptors_);
    service_ = std::async(std::launch::async, [this] {
      server_->run();
      // A sanitizer needs descriptors to look at the end of this thread.
      ::setrlimit(RLIMIT_NOFILE, &descriptors_);
    });
    EXPECT_TRUE(test::WaitFor(5000, [&] { return Status(MakeTcpIpRequest(1)) == 0; }));
  }
  ~CommunicationServerTest() override {
    server_->Stop();
    service_.wait();
    server_.reset();
    AccessChannelManager::Destroy();
    TCPSocketManager::Destroy();
  }

  template <typename Request>
  int Status(const Request& request) const {
    const ExchangeResult result = TamselClient(folder_.Path("socket")).Exchange(request, 5000);
    return result.outcome == Outcome::kAnswered ? int{result.response.receive_data.status} : -100;
  }

  /// A TCP/IP request whose header has been read, with its client.
  struct Connection {
    explicit Connection(int channel) {
      int ends[2];
      EXPECT_EQ(0, ::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
      AccessChannelManager::GetInstance()->SetUsedState(channel, true);
      sock = ends[0];
      work = new CommSocketWork(sock, {0, {}, channel, kRequestDataTypeTCPIP, 0, {}});
      client = test::RawClient(Descriptor(ends[1]));
    }
    int sock = -1;
    Poco::AutoPtr<CommSocketWork> work;
    test::RawClient client;
  };

  const test::AnsweringDevice device_;
  std::unique_ptr<CommunicationServer> server_;
  rlimit descriptors_{};
  std::future<void> service_;
};

TEST_F(CommunicationServerTest, WaitingClientsAreClosedWhenTheServiceEnds) {
  test::RawClient waiting(folder_.Path("socket"));
  // Once a later one has been served, it has been accepted.
  EXPECT_EQ(Status(MakeTcpIpRequest(1)), 0);
  test::SleepMs(50);
  test::RawClient last;
  const rlimit none = {static_cast<rlim_t>(::fcntl(0, F_DUPFD_CLOEXEC, 0)), descriptors_.rlim_max};
  ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &none));
  last.Connect(folder_.Path("socket"));
  EXPECT_EQ(service_.wait_for(std::chrono::seconds(3)), std::future_status::ready);
  EXPECT_EQ(waiting.Read(2000).end, test::StreamEnd::kEnd);
  EXPECT_TRUE(test::Contains(StopLog(), "[E] CommSvr Fail to accept\n"));
}

// Memory runs out at each place in turn, for one allocation and for a row of them: whatever became
// of that request, its client is let go and the next one finds the service as it was.
TEST_F(CommunicationServerTest, AFailedAllocationEndsOneRequestOnly) {
  TcpIpRequest tcp = MakeTcpIpRequest(1);
  ASSERT_FALSE(AddTcpIpDevice(tcp, 1, "127.0.0.1", device_.Port(), 1000,
                              {0, 1, 0, 0, 0, 6, 1, 3, 0, 0, 0, 1}));
  const Rs485Request rs485 = MakeRs485Request(1, 3);
  const auto fail_everywhere = [&](const auto& request, int row, int step) {
    bool has_failed = true;
    for (int first = 1; has_failed; first += step) {
      test::RawClient client(folder_.Path("socket"));
      test::FailAllocations(first, first + row - 1);
      client.Send(&request, sizeof(request));
      EXPECT_NE(client.Read(3000).end, test::StreamEnd::kNone) << "left waiting";
      has_failed = test::FailAllocations(0, 0);
      ASSERT_TRUE(test::WaitFor(2000, [&] { return Status(tcp) == 0 && Status(rs485) == 8; }))
          << first << " and on: " << row;
    }
  };
  fail_everywhere(tcp, 1, 1);
  fail_everywhere(tcp, 1000000, 7);
  fail_everywhere(rs485, 1, 1);
  fail_everywhere(rs485, 1000000, 7);
}

// The response is one piece, and the channel is free for whoever has it.
TEST_F(CommunicationServerTest, AClientMayReadOnceAndAskAgainAtOnce) {
  const Deadline deadline(std::chrono::seconds(30));
  for (int i = 0; i < 500; ++i) {
    test::RawClient client(folder_.Path("socket"), MakeTcpIpRequest(1));
    test::Reply reply;
    client.ReadOnce(reply, deadline);
    ASSERT_EQ(reply.bytes.size(), sizeof(ResponseReceiveData)) << i;
    ASSERT_EQ(reply.Response().receive_data.status, 0) << i;
  }
}

TEST_F(CommunicationServerTest, ASlowReaderHoldsUpNobodyElse) {
  AccessChannelManager* channels = AccessChannelManager::GetInstance();
  for (const bool reads_at_last : {true, false}) {
    Connection connection(2);
    const int small = 1;
    ::setsockopt(connection.sock, SOL_SOCKET, SO_SNDBUF, &small, sizeof(small));
    connection.client.Send("x", 1);  // a payload that is too short is answered
    auto served = std::async(std::launch::async, [&] { connection.work->Execute(); });
    test::SleepMs(200);
    const test::Stopwatch watch;
    EXPECT_TRUE(channels->GetUsedState(2)) << "its response is on the way";
    EXPECT_LT(watch.Ms(), 200);
    if (reads_at_last) {
      EXPECT_EQ(connection.client.Read(5000).Response().receive_data.status, 4);
    } else {
      served.get();
    }
    EXPECT_FALSE(channels->GetUsedState(2));
  }
  std::string end;
  for (const std::string& line : test::Lines(StopLog())) {
    end.append(line, line.find('[', 1)).append("\n");
    end.erase(0, test::Contains(line, "write sock fail. [11]") ? std::string::npos : 0);
  }
  EXPECT_EQ(end,
            "[V] CommSvr close_sock\n[V] AChMgr SetUsedState ch:[2] used:[0]\n"
            "[D] AChMgr SetUsedState ch:[2] used:[1]->[0]\n"
            "[D] AChMgr GetUsedState ch:[2] used:[0]\n");
}

TEST_F(CommunicationServerTest, AResultWithoutARecordIsNotWritten) {
  Connection connection(3);
  const auto nothing = std::make_shared<CommunicationResult>(nullptr);
  EXPECT_TRUE(connection.work->WriteResponseData(connection.sock, nothing));
  connection.work->HandBack(true, nothing);
  const test::Reply reply = connection.client.Read(2000);
  EXPECT_TRUE(reply.bytes.empty() && reply.end == test::StreamEnd::kEnd);
  EXPECT_FALSE(AccessChannelManager::GetInstance()->GetUsedState(3));
  EXPECT_FALSE(test::Contains(StopLog(), "[E]"));
}

}  // namespace
}  // namespace tmsc
