#include "daemon_client.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

/// Requests of every kind, good and bad.
void RunRound(const DaemonProcess& daemon, Devices& devices, int round) {
  const int channel = round % kMaxChannel + 1;
  const FaultKind faults[] = {FaultKind::kNone,    FaultKind::kCloseBefore, FaultKind::kCloseAfter,
                              FaultKind::kTooLong, FaultKind::kRefuse,      FaultKind::kZeroLength};
  for (int address = 1; address <= 3; ++address) {
    devices.SetFault(address, faults[(round + address) % 6]);
  }
  const std::string& path = daemon.SocketPath();
  const TcpIpRequest request = devices.Request(channel);
  // A client's next request is never too early: its channel is free when it has its answer.
  EXPECT_EQ(Exchange(daemon, request).receive_data.status, 0);
  EXPECT_EQ(Exchange(daemon, MakeRs485Request(channel, 1)).receive_data.status, 8);
  EXPECT_EQ(Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status, 0);
  TcpIpRequest unknown = request;
  unknown.header.type = 5;
  RawClient(path, unknown).Read(2000);
  RawClient(path, MakeTcpIpRequest(9)).Read(2000);
  RawClient(path, request, 10).Read(2000);
  RawClient(path, request, 1000).Read(2000);
  RawClient leaves_silently(path);
  RawClient leaves_before_its_answer(path, request);
}

TEST(LongRun, NothingGrows) {
  const DaemonProcess daemon(Settings{{"LogLevel", "2"}});
  Devices devices(3);
  const auto run = [&](int rounds) {
    for (int round = 0; round < rounds && !::testing::Test::HasFailure(); ++round) {
      RunRound(daemon, devices, round);
      ExpectServes(daemon);
    }
    EXPECT_TRUE(WaitFor(3000, [&] { return daemon.Status("Threads") <= 20; }));
  };
  run(50);
  const long descriptors = daemon.DescriptorCount();
  const long long resident_kib = daemon.Status("VmRSS");
  run(200);
  // The pool holds up to one connection a device, by the fault played last.
  EXPECT_TRUE(WaitFor(3000, [&] { return daemon.DescriptorCount() <= descriptors + 3; }))
      << daemon.DescriptorCount() << " descriptors, " << descriptors << " before";
  const long long grown_kib = daemon.Status("VmRSS") - resident_kib;
  EXPECT_TRUE(grown_kib <= 256 || TAMSEL_TEST_SANITIZED) << grown_kib;
}

}  // namespace
}  // namespace tmsc::test
