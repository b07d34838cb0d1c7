#include "tamsel_client.h"

#include <gtest/gtest.h>

#include <cstring>

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

TEST(TamselClient, AnExchangeEndsAsTheDaemonBehaves) {
  constexpr std::size_t kHeader = sizeof(DataHeader);
  constexpr std::size_t kRequest = sizeof(TcpIpRequest);
  constexpr std::size_t kResponse = sizeof(ResponseReceiveData);
  const struct {
    const char* name;
    FakeDaemon::Script script;
    int accept_delay_ms;
    Outcome outcome;
    int least_ms;
  } cases[] = {
      {"answers in pieces", Script(kRequest, kResponse, 5, 20), 0, Outcome::kAnswered, 80},
      // The payload stays unread, as when the daemon refuses a request: the client sees a reset.
      {"answers the header alone", Script(kHeader, kResponse), 0, Outcome::kAnswered, 0},
      {"refuses the header", Script(kHeader, 0), 0, Outcome::kClosedWithoutAnswer, 0},
      {"closes within the answer", Script(kRequest, kResponse - 1), 0,
       Outcome::kClosedWithoutAnswer, 0},
      // Each piece comes well within the deadline, all of them together do not.
      {"answers too slowly", Script(kRequest, kResponse, 8, 250), 0, Outcome::kTimedOut,
       kDeadlineMs},
      {"never accepts", Script(kRequest, 0), 20000, Outcome::kTimedOut, kDeadlineMs},
      {"accepts late", Script(kRequest, kResponse), 400, Outcome::kAnswered, 100},
  };
  for (const auto& given : cases) {
    FakeDaemon daemon(given.script, given.accept_delay_ms);
    const TamselClient client(daemon.Path());
    // Clients that leave at once stay in the backlog, so that it is full for the next.
    for (int filler = 0; given.accept_delay_ms > 0 && filler < 2; ++filler) {
      EXPECT_EQ(client.Exchange(OneDeviceRequest(), 0).outcome, Outcome::kTimedOut);
    }
    const test::Stopwatch watch;
    const ExchangeResult result = client.Exchange(OneDeviceRequest(), kDeadlineMs);
    EXPECT_EQ(result.outcome, given.outcome) << given.name << result.text;
    EXPECT_GE(watch.Ms(), given.least_ms) << given.name;
    EXPECT_LE(watch.Ms(), kDeadlineMs + test::kSlackMs) << given.name;
    const bool is_answered = result.outcome == Outcome::kAnswered;
    const ResponseReceiveData expected = is_answered ? Answer(31, 0, "0405") : Status(0);
    EXPECT_EQ(std::memcmp(&result.response, &expected, sizeof(expected)), 0) << given.name;
  }
}

TEST(TamselClient, WrongDevicesAreRefusedAndLeaveNoTrace) {
  const struct {
    int address;
    const char* ip_address;
    int port;
    int timeout_ms;
    std::size_t frame_size;
  } cases[] = {
      {0, "192.0.2.1", 502, 1, 1},     {32, "192.0.2.1", 502, 1, 1},   {1, "192.0.2.1", 0, 1, 1},
      {1, "192.0.2.1", 65536, 1, 1},   {1, "192.0.2.1", 502, -1, 1},   {1, "192.0.2.1", 502, 1, 0},
      {1, "192.0.2.1", 502, 32768, 1}, {1, "192.0.2.1", 502, 1, 127},  {1, "", 502, 1, 1},
      {1, "192.0.2.1 ", 502, 1, 1},    {31, "192.0.2.1", 502, 1, 126},
  };
  const TcpIpRequest untouched = OneDeviceRequest();
  for (const auto& given : cases) {
    TcpIpRequest request = untouched;
    EXPECT_TRUE(AddTcpIpDevice(request, given.address, given.ip_address, given.port,
                               given.timeout_ms, std::vector<byte>(given.frame_size)))
        << given.address << ' ' << given.ip_address << ' ' << given.port;
    EXPECT_EQ(std::memcmp(&request, &untouched, sizeof(request)), 0);
  }
  TcpIpRequest request = untouched;
  EXPECT_FALSE(AddTcpIpDevice(request, 1, "192.0.2.255", 65535, 32767, std::vector<byte>(126, 9)));
  EXPECT_EQ(FrameLengthOf(request.payload.send_data[1]), 126);
  EXPECT_FALSE(DeviceAnswer(Status(0), 0));
  EXPECT_FALSE(DeviceAnswer(Status(0), 32));
}

}  // namespace
}  // namespace tmsc
