#include <gtest/gtest.h>

#include <cstdlib>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

/// One round of requests of every kind, good and bad; returns how many.
int RunRound(const DaemonProcess& daemon, Devices& devices, int round) {
  const int channel = round % kMaxChannel + 1;
  const FaultKind faults[] = {FaultKind::kNone,    FaultKind::kCloseBefore, FaultKind::kCloseAfter,
                              FaultKind::kTooLong, FaultKind::kRefuse,      FaultKind::kZeroLength};
  for (int address = 1; address <= 3; ++address) {
    devices->SetFault(address, faults[(round + address) % 6]);
  }
  const TcpIpRequest request = devices.Request(channel, 200);
  EXPECT_EQ(Exchange(daemon, request).receive_data.status, 0);
  EXPECT_EQ(Exchange(daemon, MakeRs485Request(channel, 1)).receive_data.status, 8);
  EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status, 0);
  RawClient(daemon.SocketPath(), MakeTcpIpRequest(9)).Read(2000);
  RawClient(daemon.SocketPath(), request, 10).Read(2000);
  RawClient(daemon.SocketPath(), request, 1000).Read(2000);
  RawClient(daemon.SocketPath());
  TcpIpRequest unknown = request;
  unknown.header.type = 5;
  RawClient(daemon.SocketPath(), unknown).Read(2000);
  // Leaves before its answer; the channel is then busy for a moment.
  RawClient(daemon.SocketPath(), request);
  EXPECT_TRUE(WaitFor(
      2000, [&] { return Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status == 0; }));
  return 10;
}

TEST(LongRun, NothingGrows) {
  const char* const count_text = std::getenv("TAMSEL_REQUEST_COUNT");
  const int count = count_text != nullptr ? std::atoi(count_text) : 2000;
  DaemonProcess daemon(Settings{{"LogLevel", "2"}});
  Devices devices(3);
  int round = 0;
  const auto run = [&](int requests) {
    for (int done = 0; done < requests && !::testing::Test::HasFailure();) {
      done += RunRound(daemon, devices, round++);
    }
  };
  run(count / 4);
  ASSERT_TRUE(WaitFor(3000, [&] { return daemon.Status("Threads") <= 20; }));
  SleepMs(100);
  const long threads = daemon.Status("Threads");
  const long descriptors = daemon.DescriptorCount();
  const long resident_kib = daemon.Status("VmRSS");
  run(count);
  // The pool holds up to one connection a device, by the fault played last.
  EXPECT_TRUE(WaitFor(3000,
                      [&] {
                        return daemon.Status("Threads") <= threads &&
                               daemon.DescriptorCount() <= descriptors + 3;
                      }))
      << daemon.Status("Threads") << " threads, " << threads << " before; "
      << daemon.DescriptorCount() << " descriptors, " << descriptors << " before";
  if (!TAMSEL_TEST_SANITIZED) {
    EXPECT_LE(daemon.Status("VmRSS"), resident_kib + 256);
  }
  EXPECT_TRUE(daemon.IsRunning());
}

TEST(LongRun, MemoryWithAllDevicesInFlight) {
  if (TAMSEL_TEST_SANITIZED) {
    GTEST_SKIP() << "a sanitizer's own memory counts in";
  }
  const DaemonProcess daemon;
  Devices silent[] = {Devices(31, FaultKind::kSilence), Devices(31, FaultKind::kSilence),
                      Devices(31, FaultKind::kSilence)};
  std::vector<RawClient> clients;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    clients.emplace_back(daemon.SocketPath(), silent[channel - 1].Request(channel, 1500));
  }
  for (Devices& devices : silent) {
    for (int address = 1; address <= 31; ++address) {
      ASSERT_TRUE(WaitFor(3000, [&] { return devices->RequestsReceived(address) == 1; }));
    }
  }
  EXPECT_GE(daemon.Status("Threads"), 93);
  EXPECT_LE(daemon.Status("VmRSS"), 8 * 1024);
  for (RawClient& client : clients) {
    EXPECT_TRUE(client.Read(5000).IsResponse());
  }
  EXPECT_LE(daemon.Status("VmHWM"), 8 * 1024);
}

}  // namespace
}  // namespace tmsc::test
