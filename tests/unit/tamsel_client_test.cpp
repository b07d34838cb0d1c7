#include "tamsel_client.h"

#include <gtest/gtest.h>

#include <cstring>

#include "support/fake_daemon.h"
#include "support/wait.h"

namespace tmsc {
namespace {

TcpIpRequest OneDeviceRequest() {
  TcpIpRequest request = MakeTcpIpRequest(2);
  EXPECT_EQ(AddTcpIpDevice(request, 31, "192.0.2.10", 502, 1000, {1, 2, 3}), std::nullopt);
  return request;
}

TEST(TamselClient, AnExchangeEndsAsTheDaemonBehaves) {
  constexpr int kDeadlineMs = 1000;
  constexpr std::size_t kHeader = sizeof(DataHeader), kAll = sizeof(TcpIpRequest);
  constexpr std::size_t kResponse = sizeof(ResponseReceiveData);
  const ResponseReceiveData answer = Answer(0, "0405");
  const struct {
    Outcome outcome;
    std::size_t read_size, size;  // the daemon reads so much, then sends so much of its answer
    int pause_ms, accept_delay_ms;
  } rows[] = {{Outcome::kAnswered, kAll, kResponse, 20, 0},
              // Its payload unread, as when the daemon refuses a request: the client sees a reset.
              {Outcome::kAnswered, kHeader, kResponse, 0, 0},
              {Outcome::kClosedWithoutAnswer, kHeader, 0, 0, 0},
              {Outcome::kClosedWithoutAnswer, kAll, kResponse - 1, 0, 0},
              // Each piece comes well within the deadline, all of them together do not.
              {Outcome::kTimedOut, kAll, kResponse, 300, 0},
              // The backlog is full, for good and for a while.
              {Outcome::kTimedOut, kAll, 0, 0, 20000},
              {Outcome::kAnswered, kAll, kResponse, 0, 400}};
  for (const auto& row : rows) {
    SCOPED_TRACE(&row - rows);
    const auto script = [&](int connection) {
      FakeDaemon::ReadOnce(connection, row.read_size);
      for (std::size_t at = 0; at < 5; ++at) {
        FakeDaemon::Send(connection, answer, row.size * at / 5, row.size * (at + 1) / 5);
        test::SleepMs(row.pause_ms);
      }
    };
    const FakeDaemon daemon(script, row.accept_delay_ms);
    const TamselClient client(daemon.Path());
    // Clients that leave at once stay in the backlog, so that it is full for the next.
    for (int filler = 0; row.accept_delay_ms > 0 && filler < 2; ++filler) {
      EXPECT_EQ(client.Exchange(OneDeviceRequest(), 0).outcome, Outcome::kTimedOut);
    }
    const test::Stopwatch watch;
    const ExchangeResult result = client.Exchange(OneDeviceRequest(), kDeadlineMs);
    EXPECT_EQ(result.outcome, row.outcome) << result.text;
    EXPECT_GE(watch.Ms(), row.outcome == Outcome::kTimedOut ? kDeadlineMs : 0);
    EXPECT_LE(watch.Ms(), kDeadlineMs + test::kSlackMs);
    const auto expected = row.outcome == Outcome::kAnswered ? answer : ResponseReceiveData{};
    EXPECT_EQ(std::memcmp(&result.response, &expected, kResponse), 0);
  }
}

TEST(TamselClient, WrongDevicesAreRefusedAndLeaveNoTrace) {
  const TcpIpRequest untouched = OneDeviceRequest();
  const int rows[][4] = {{0, 502, 1, 1},        {32, 502, 1, 1},  {31, 502, 1, 1},
                         {1, 0, 1, 1},          {1, 65536, 1, 1}, {1, 502, -1, 1},
                         {1, 502, 32768, 1},    {1, 502, 1, 0},   {1, 502, 1, 127},
                         {1, 65535, 32767, 126}};
  for (const auto& [address, port, timeout_ms, size] : rows) {
    TcpIpRequest request = untouched;
    const std::vector<byte> frame(static_cast<std::size_t>(size));
    const bool is_added = !AddTcpIpDevice(request, address, "192.0.2.255", port, timeout_ms, frame);
    EXPECT_EQ(is_added, size == 126) << address << ' ' << port << ' ' << timeout_ms << ' ' << size;
    EXPECT_EQ(std::memcmp(&request, &untouched, sizeof(request)) != 0, is_added);
  }
  EXPECT_FALSE(DeviceAnswer({}, 0) || DeviceAnswer({}, 32));
}

}  // namespace
}  // namespace tmsc
