#include "tamsel_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

#include "support/fake_daemon.h"
#include "support/wait.h"

namespace tmsc {
namespace {

constexpr int kDeadlineMs = 1000;

TcpIpRequest OneDeviceRequest() {
  TcpIpRequest request = MakeTcpIpRequest(2);
  EXPECT_EQ(AddTcpIpDevice(request, 31, "192.0.2.10", 502, 1000, {1, 2, 3}), std::nullopt);
  return request;
}

// Reads `read_size` bytes, then answers with the first `size` bytes of a response in pieces.
FakeDaemon::Script Script(std::size_t read_size, std::size_t size, std::size_t pieces = 1,
                          int pause_ms = 0) {
  return [=](int connection) {
    FakeDaemon::ReadOnce(connection, read_size);
    for (std::size_t piece = 0; piece < pieces; ++piece) {
      FakeDaemon::Send(connection, Answer(31, 0, "0405"), size * piece / pieces,
                       size * (piece + 1) / pieces);
      test::SleepMs(pause_ms);
    }
  };
}

void ExpectOutcome(Outcome outcome, int least_ms, FakeDaemon::Script script,
                   int accept_delay_ms = 0) {
  const FakeDaemon daemon(std::move(script), accept_delay_ms);
  const TamselClient client(daemon.Path());
  // Clients that leave at once stay in the backlog, so that it is full for the next.
  for (int filler = 0; accept_delay_ms > 0 && filler < 2; ++filler) {
    EXPECT_EQ(client.Exchange(OneDeviceRequest(), 0).outcome, Outcome::kTimedOut);
  }
  const test::Stopwatch watch;
  const ExchangeResult result = client.Exchange(OneDeviceRequest(), kDeadlineMs);
  EXPECT_EQ(result.outcome, outcome) << result.text;
  EXPECT_GE(watch.Ms(), least_ms);
  EXPECT_LE(watch.Ms(), kDeadlineMs + test::kSlackMs);
  const ResponseReceiveData expected =
      result.outcome == Outcome::kAnswered ? Answer(31, 0, "0405") : Status(0);
  EXPECT_EQ(std::memcmp(&result.response, &expected, sizeof(expected)), 0);
}

TEST(TamselClient, AnExchangeEndsAsTheDaemonBehaves) {
  constexpr std::size_t kHeader = sizeof(DataHeader);
  constexpr std::size_t kAll = sizeof(TcpIpRequest);
  constexpr std::size_t kResponse = sizeof(ResponseReceiveData);
  ExpectOutcome(Outcome::kAnswered, 80, Script(kAll, kResponse, 5, 20));
  // The payload stays unread, as when the daemon refuses a request: the client sees a reset.
  ExpectOutcome(Outcome::kAnswered, 0, Script(kHeader, kResponse));
  ExpectOutcome(Outcome::kClosedWithoutAnswer, 0, Script(kHeader, 0));
  ExpectOutcome(Outcome::kClosedWithoutAnswer, 0, Script(kAll, kResponse - 1));
  // Each piece comes well within the deadline, all of them together do not.
  ExpectOutcome(Outcome::kTimedOut, kDeadlineMs, Script(kAll, kResponse, 8, 250));
  // The backlog is full, for good and for a while.
  ExpectOutcome(Outcome::kTimedOut, kDeadlineMs, Script(kAll, 0), 20000);
  ExpectOutcome(Outcome::kAnswered, 100, Script(kAll, kResponse), 400);
}

TEST(TamselClient, WrongDevicesAreRefusedAndLeaveNoTrace) {
  const TcpIpRequest untouched = OneDeviceRequest();
  const auto is_refused = [&](int address, const char* ip_address, int port, int timeout_ms,
                              std::size_t frame_size) {
    TcpIpRequest request = untouched;
    return AddTcpIpDevice(request, address, ip_address, port, timeout_ms,
                          std::vector<byte>(frame_size)) &&
           std::memcmp(&request, &untouched, sizeof(request)) == 0;
  };
  EXPECT_FALSE(is_refused(1, "192.0.2.255", 65535, 32767, 126));
  EXPECT_TRUE(is_refused(0, "192.0.2.1", 502, 1, 1));
  EXPECT_TRUE(is_refused(32, "192.0.2.1", 502, 1, 1));
  EXPECT_TRUE(is_refused(31, "192.0.2.1", 502, 1, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1 ", 502, 1, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 0, 1, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 65536, 1, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 502, -1, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 502, 32768, 1));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 502, 1, 0));
  EXPECT_TRUE(is_refused(1, "192.0.2.1", 502, 1, 127));
  EXPECT_FALSE(DeviceAnswer(Status(0), 0));
  EXPECT_FALSE(DeviceAnswer(Status(0), 32));
}

}  // namespace
}  // namespace tmsc
