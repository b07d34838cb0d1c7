#include "daemon_client.h"

namespace tmsc::test {
namespace {

TEST(Clients, SilentOnesHoldNobodyUpAndTheOldestMakesRoom) {
  const DaemonProcess daemon;
  const Stopwatch watch;
  std::vector<RawClient> silent;
  for (int i = 0; i < 65; ++i) {
    silent.emplace_back(daemon.SocketPath());
  }
  ExpectRefused(silent[0].Read(5000));
  EXPECT_LT(watch.Ms(), 900);
  ExpectServes(daemon);
  const TcpIpRequest request = MakeTcpIpRequest(1);
  silent[2].Send(&request, sizeof(request));
  ExpectResponse(silent[2].Read(5000).Response(), 2, 0);
  EXPECT_EQ(silent[5].Read(0).end, StreamEnd::kNone) << "closed before its time";
  for (std::size_t i = 5; i < silent.size(); ++i) {
    ExpectRefused(silent[i].Read(5000));
  }
  EXPECT_GE(watch.Ms(), 950);
  EXPECT_LT(watch.Ms(), 1000 + 2 * kSlackMs);
}

TEST(Clients, FiveHundredAtOnce) {
  DaemonProcess daemon(Settings{{"LogLevel", "2"}});
  const Devices slow(1, {simulator::FaultKind::kDelay, 300});
  const long descriptors = daemon.DescriptorCount();
  std::vector<RawClient> clients;
  for (int i = 0; i < 500; ++i) {
    const int channel = i % kMaxChannel + 1;
    if (i % 4 == 0) {
      clients.emplace_back(daemon.SocketPath());
    } else if (i % 4 == 1) {
      clients.emplace_back(daemon.SocketPath(), MakeTcpIpRequest(channel), sizeof(DataHeader));
    } else {
      clients.emplace_back(daemon.SocketPath(), slow.Request(channel));
    }
    if (i % 4 == 2) {
      clients.back().Close();
    }
  }
  ExpectServes(daemon);
  EXPECT_TRUE(daemon.WaitForConsole("Rq dat type 485, write sock fail. [32] sock["));
  for (std::size_t i = 0; i < clients.size(); ++i) {
    EXPECT_TRUE(i % 4 == 2 || clients[i].Read(5000).end != StreamEnd::kNone) << i;
  }
  EXPECT_TRUE(WaitFor(2000, [&] { return daemon.DescriptorCount() <= descriptors + 3; }))
      << daemon.DescriptorCount() << " descriptors, " << descriptors << " before";
  EXPECT_TRUE(daemon.IsRunning());
}

}  // namespace
}  // namespace tmsc::test
