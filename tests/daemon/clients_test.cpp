#include <gtest/gtest.h>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

TEST(Clients, SilentOnesHoldNobodyUp) {
  const DaemonProcess daemon;
  const Stopwatch watch;
  std::vector<RawClient> silent;
  for (int i = 0; i < 5; ++i) {
    silent.emplace_back(daemon.SocketPath());
  }
  while (watch.Ms() < 500) {
    const Stopwatch exchange;
    EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(1)).receive_data.status, 0);
    EXPECT_LT(exchange.Ms(), kSlackMs / 4);
    SleepMs(20);
  }
  EXPECT_FALSE(silent.front().IsReadable(0)) << "closed before its time";
  for (RawClient& client : silent) {
    ExpectRefused(client.Read(5000));
  }
  EXPECT_GE(watch.Ms(), 950);
  EXPECT_LT(watch.Ms(), 1000 + kSlackMs);
}

TEST(Clients, OldestSilentOneMakesRoom) {
  const DaemonProcess daemon;
  const Stopwatch watch;
  std::vector<RawClient> silent;
  for (int i = 0; i < 65; ++i) {
    silent.emplace_back(daemon.SocketPath());
  }
  ExpectRefused(silent[0].Read(5000));
  EXPECT_LT(watch.Ms(), 900);
  EXPECT_FALSE(silent[1].IsReadable(0));
  const TcpIpRequest request = MakeTcpIpRequest(1);
  silent[1].Send(&request, sizeof(request));
  ExpectResponse(silent[1].Read(5000), 2, 0);
}

TEST(Clients, FiveHundredAtOnce) {
  DaemonProcess daemon(Settings{{"LogLevel", "2"}});
  Devices slow(1, {simulator::FaultKind::kDelay, 300});
  const long descriptors = daemon.DescriptorCount();
  std::vector<RawClient> clients;
  for (int i = 0; i < 500; ++i) {
    const int channel = i % kMaxChannel + 1;
    if (i % 4 == 0) {
      clients.emplace_back(daemon.SocketPath());
    } else if (i % 4 == 1) {
      clients.emplace_back(daemon.SocketPath(), MakeTcpIpRequest(channel), sizeof(DataHeader));
    } else {
      clients.emplace_back(daemon.SocketPath(), slow.Request(channel, 1000));
      if (i % 4 == 2) {
        clients.back().Close();
      }
    }
  }
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    EXPECT_TRUE(WaitFor(5000 + kSlackMs, [&] {
      return Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status == 0;
    })) << channel;
  }
  const Stopwatch watch;
  for (std::size_t i = 0; i < clients.size(); ++i) {
    if (i % 4 != 2) {
      EXPECT_NE(clients[i].Read(5000).end, StreamEnd::kNone) << i;
    }
  }
  EXPECT_LT(watch.Ms(), 2000 + kSlackMs);
  EXPECT_TRUE(WaitFor(2000, [&] { return daemon.DescriptorCount() <= descriptors + 3; }))
      << daemon.DescriptorCount() << " descriptors, " << descriptors << " before";
  EXPECT_TRUE(daemon.IsRunning());
}

TEST(Clients, ThatLeaveOrNeverReadDoNoHarm) {
  DaemonProcess daemon;
  Devices slow(1, {simulator::FaultKind::kDelay, 150});
  for (int i = 0; i < 5; ++i) {
    RawClient leaving(daemon.SocketPath(), slow.Request(1, 1000));
    ASSERT_TRUE(WaitFor(3000, [&] { return slow->RequestsReceived(1) == std::uint64_t(i + 1); }));
    leaving.Close();
    EXPECT_TRUE(WaitFor(
        3000, [&] { return Exchange(daemon, MakeTcpIpRequest(1)).receive_data.status == 0; }));
  }
  EXPECT_EQ(CountText(daemon.Console(), "Rq dat type 485, write sock fail. [32] sock["), 5);

  std::vector<RawClient> never_reading;
  for (int i = 0; i < 60; ++i) {
    never_reading.emplace_back(daemon.SocketPath(), MakeTcpIpRequest(i % kMaxChannel + 1));
  }
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    EXPECT_TRUE(WaitFor(3000, [&] {
      return Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status == 0;
    }));
  }
  EXPECT_TRUE(daemon.IsRunning());
}

}  // namespace
}  // namespace tmsc::test
