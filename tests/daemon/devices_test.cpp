#include <gtest/gtest.h>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

using simulator::Fault;
using simulator::FaultKind;

constexpr int kTimeoutMs = 400;
constexpr int kDrainMs = 20;

struct FaultCase {
  Fault fault;
  int status;
  std::size_t length;
  int least_ms;
  int most_ms;
  // What the next exchange with the device, free of faults by then, comes to.
  int next_status = 0;
  std::uint64_t connections = 2;
};

void PlayFaults(const std::vector<FaultCase>& cases) {
  const DaemonProcess daemon;
  for (const FaultCase& row : cases) {
    SCOPED_TRACE("fault " + std::to_string(static_cast<int>(row.fault.Kind())));
    Devices device(1, row.fault);
    const Stopwatch watch;
    ResponseReceiveData response = Exchange(daemon, device.Request(1, kTimeoutMs));
    const int elapsed = watch.Ms();
    ExpectResponse(response, 2, 0, {1});
    EXPECT_EQ(response.receive_data.receive_data[0].status, row.status);
    EXPECT_EQ(response.receive_data.receive_data[0].length, row.length);
    EXPECT_GE(elapsed, row.least_ms);
    EXPECT_LT(elapsed, row.most_ms + kSlackMs);

    device->SetFault(1, FaultKind::kNone);
    response = Exchange(daemon, device.Request(1, kTimeoutMs));
    EXPECT_EQ(response.receive_data.receive_data[0].status, row.next_status);
    if (row.next_status == 0) {
      ExpectAnswered(response, 1);
    }
    EXPECT_EQ(device->ConnectionsAccepted(1), row.connections);
  }
}

TEST(Devices, OutOfReachOrSilent) {
  PlayFaults({
      {FaultKind::kRefuse, 4, 0, 0, 0, 0, 1},
      {FaultKind::kSilence, 16, 0, kTimeoutMs, kTimeoutMs},
      {FaultKind::kCloseBefore, 16, 0, 0, 0},
      {FaultKind::kCloseMidFrame, 16, 0, 0, 0},
      // The connection stays in the pool: the next exchange finds it closed.
      {FaultKind::kCloseAfter, 0, 11, 0, 0, 16, 1},
      {{FaultKind::kDelay, 200}, 0, 11, 200, 200 + kDrainMs, 0, 1},
      {{FaultKind::kDelay, 1000}, 16, 0, kTimeoutMs, kTimeoutMs},
  });
}

TEST(Devices, FramesInPiecesAndOfAllLengths) {
  PlayFaults({
      {{FaultKind::kPieces, 2, 30}, 0, 11, 150, 150 + kDrainMs, 0, 1},
      {{FaultKind::kSplitHeader, 100}, 0, 11, 100, 100 + kDrainMs, 0, 1},
      {FaultKind::kLongest, 0, 438, kDrainMs, kDrainMs, 0, 1},
      {FaultKind::kTooLong, 16, 0, 0, 0},
      {FaultKind::kWrongLength, 16, 0, kTimeoutMs, kTimeoutMs},
      {FaultKind::kZeroLength, 0, 6, kDrainMs, kDrainMs, 0, 1},
      {FaultKind::kFixed, 16, 0, 0, 0},
  });
}

TEST(Devices, ThatSendMoreThanTheirFrame) {
  PlayFaults({
      {FaultKind::kEndless, 0, 11, 0, 5000},
      {{FaultKind::kLate, 5}, 0, 11, 5 + kDrainMs, 5 + kDrainMs, 0, 1},
  });
}

TEST(Devices, GarbageEndsInAnAnswerOrAnError) {
  const DaemonProcess daemon;
  for (int seed = 0; seed < 8; ++seed) {
    SCOPED_TRACE(seed);
    Devices device(1, {FaultKind::kGarbage, 1 + seed * 100, seed});
    const Stopwatch watch;
    const ResponseReceiveData response = Exchange(daemon, device.Request(1, 150));
    EXPECT_LT(watch.Ms(), 2 * 150 + kSlackMs);
    ExpectResponse(response, 2, 0, {1});
    const DeviceReceiveData& slot = response.receive_data.receive_data[0];
    EXPECT_EQ(slot.status, slot.length > 0 ? 0 : 16);
  }
}

TEST(Devices, FaultsOfSomeLeaveTheOthersAlone) {
  const DaemonProcess daemon;
  Devices devices(31);
  const Fault faults[] = {FaultKind::kNone, FaultKind::kSilence, FaultKind::kRefuse,
                          FaultKind::kCloseMidFrame};
  const int statuses[] = {0, 16, 4, 16};
  for (int address = 1; address <= 31; ++address) {
    devices->SetFault(address, faults[address % 4]);
  }
  const Stopwatch watch;
  const ResponseReceiveData response = Exchange(daemon, devices.Request(1, kTimeoutMs));
  EXPECT_LT(watch.Ms(), kTimeoutMs + kSlackMs);
  for (int address = 1; address <= 31; ++address) {
    const auto answer = DeviceAnswer(response, address);
    EXPECT_EQ(answer->status, statuses[address % 4]) << address;
    EXPECT_EQ(answer->frame, address % 4 == 0 ? AnswerFrame(address) : std::vector<byte>{});
  }
}

TEST(Devices, TwoBehindOneAddressHaveAConnectionEach) {
  const DaemonProcess daemon;
  Devices gateway(2, FaultKind::kNone, true);
  for (int i = 0; i < 3; ++i) {
    ExpectAnswered(Exchange(daemon, gateway.Request(1)), 2);
  }
  EXPECT_EQ(gateway->ConnectionsAccepted(1), 2U);
  EXPECT_EQ(gateway->OpenConnections(), 2U);
}

TEST(Devices, ReuseCheckReplacesAConnectionThatCannotBeRight) {
  const DaemonProcess daemon(Settings{{"TcpReuseCheck", "1"}});
  for (const Fault& fault : {Fault(FaultKind::kCloseAfter), Fault(FaultKind::kLate, 100)}) {
    Devices device(1, fault);
    for (std::uint64_t i = 1; i <= 3; ++i) {
      ExpectAnswered(Exchange(daemon, device.Request(1)), 1);
      EXPECT_EQ(device->ConnectionsAccepted(1), i);
      SleepMs(150);
    }
  }
}

TEST(Devices, WithoutADrainTimeTheDevicesOwnTimeOutHolds) {
  const DaemonProcess daemon(Settings{{"TcpDrainTimeout", ""}});
  struct Case {
    Fault fault;
    int timeout_ms;
    int drain_ms;
  };
  const Case cases[] = {
      {FaultKind::kNone, 300, 300}, {FaultKind::kNone, 0, 1000}, {FaultKind::kCloseAfter, 300, 0}};
  for (const Case& row : cases) {
    Devices device(1, row.fault);
    const Stopwatch watch;
    ExpectAnswered(Exchange(daemon, device.Request(1, row.timeout_ms)), 1);
    EXPECT_GE(watch.Ms(), row.drain_ms);
    EXPECT_LT(watch.Ms(), row.drain_ms + kSlackMs);
  }
}

}  // namespace
}  // namespace tmsc::test
