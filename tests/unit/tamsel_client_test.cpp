#include "tamsel_client.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <functional>

#include "status_text.h"
#include "support/fake_daemon.h"

namespace tmsc {
namespace {

constexpr int kDeadlineMs = 500;

TcpIpRequest OneDeviceRequest() {
  TcpIpRequest request = MakeTcpIpRequest(2);
  EXPECT_EQ(AddTcpIpDevice(request, 31, "192.0.2.10", 502, 1000, {1, 2, 3}), std::nullopt);
  return request;
}

ResponseReceiveData OneDeviceResponse() {
  ResponseReceiveData response = FakeDaemon::MakeResponse(kRequestDataTypeTCPIP, 0);
  FakeDaemon::SetAnswer(response, 31, 0, {4, 5});
  return response;
}

void SendInPieces(int connection, std::size_t size, std::size_t pieces, int pause_ms) {
  const ResponseReceiveData response = OneDeviceResponse();
  const auto* bytes = reinterpret_cast<const char*>(&response);
  for (std::size_t piece = 0; piece < pieces; ++piece) {
    const std::size_t begin = size * piece / pieces;
    FakeDaemon::Send(connection, bytes + begin, size * (piece + 1) / pieces - begin);
    std::this_thread::sleep_for(std::chrono::milliseconds(pause_ms));
  }
}

struct ExchangeCase {
  const char* name;
  std::function<void(int)> script;
  int accept_delay_ms;
  Outcome outcome;
  int least_ms;
  int most_ms;
};

void PrintTo(const ExchangeCase& given, std::ostream* output) {
  *output << given.name;
}

class TamselClientExchange : public testing::TestWithParam<ExchangeCase> {};

TEST_P(TamselClientExchange, EndsAsTheDaemonBehaves) {
  const ExchangeCase& given = GetParam();
  FakeDaemon daemon(given.script, given.accept_delay_ms);
  if (given.accept_delay_ms > 0) {
    // Clients that leave at once stay in the backlog, so that it is full for the next.
    for (int filler = 0; filler < 2; ++filler) {
      EXPECT_EQ(TamselClient(daemon.Path()).Exchange(OneDeviceRequest(), 0).outcome,
                Outcome::kTimedOut);
    }
  }
  const auto begin = Deadline::Clock::now();
  const ExchangeResult result =
      TamselClient(daemon.Path()).Exchange(OneDeviceRequest(), kDeadlineMs);
  const auto elapsed =
      std::chrono::duration_cast<std::chrono::milliseconds>(Deadline::Clock::now() - begin);
  EXPECT_EQ(result.outcome, given.outcome) << result.text;
  EXPECT_EQ(result.text.empty(), result.outcome == Outcome::kAnswered);
  EXPECT_GE(elapsed.count(), given.least_ms);
  EXPECT_LE(elapsed.count(), given.most_ms);
  const ResponseReceiveData expected =
      result.outcome == Outcome::kAnswered ? OneDeviceResponse() : ResponseReceiveData{};
  EXPECT_EQ(std::memcmp(&result.response, &expected, sizeof(expected)), 0);
}

void AnswerInPieces(int connection) {
  FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
  SendInPieces(connection, sizeof(ResponseReceiveData), 5, 20);
}

// The payload stays unread, as when the daemon refuses a request: the client sees a reset.
void AnswerToTheHeaderAlone(int connection) {
  FakeDaemon::ReadOnce(connection, sizeof(DataHeader));
  SendInPieces(connection, sizeof(ResponseReceiveData), 1, 0);
}

const ExchangeCase kExchangeCases[] = {
    {"AnswersInPieces", AnswerInPieces, 0, Outcome::kAnswered, 80, 450},
    {"AnswersTheHeaderAlone", AnswerToTheHeaderAlone, 0, Outcome::kAnswered, 0, 450},
    {"RefusesTheHeader",
     [](int connection) { FakeDaemon::ReadOnce(connection, sizeof(DataHeader)); }, 0,
     Outcome::kClosedWithoutAnswer, 0, 450},
    {"ClosesAtOnce", [](int) {}, 0, Outcome::kClosedWithoutAnswer, 0, 450},
    {"ClosesWithinTheAnswer",
     [](int connection) {
       FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
       SendInPieces(connection, sizeof(ResponseReceiveData) - 1, 1, 0);
     },
     0, Outcome::kClosedWithoutAnswer, 0, 450},
    {"NeverAnswers",
     [](int connection) {
       FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
       FakeDaemon::ReadOnce(connection, 1);
     },
     0, Outcome::kTimedOut, kDeadlineMs, 2000},
    // Each piece comes well within the deadline, all of them together do not.
    {"AnswersTooSlowly",
     [](int connection) {
       FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
       SendInPieces(connection, sizeof(ResponseReceiveData), 10, 100);
     },
     0, Outcome::kTimedOut, kDeadlineMs, 2000},
    {"NeverAccepts", [](int) {}, 5000, Outcome::kTimedOut, kDeadlineMs, 2000},
    {"AcceptsLate", AnswerToTheHeaderAlone, 300, Outcome::kAnswered, 100, 490},
};

INSTANTIATE_TEST_SUITE_P(All, TamselClientExchange, testing::ValuesIn(kExchangeCases),
                         [](const auto& test) { return test.param.name; });

TEST(TamselClient, SendsHeaderAndPayloadInOneWrite) {
  std::vector<byte> received;
  Rs485Request request = MakeRs485Request(2, 7);
  SetPortParams params{};
  params.address = 5;
  params.timeout = 0x0102;
  ASSERT_EQ(AddRs485Device(request, params, {0x11, 0x22, 0x33}), std::nullopt);
  {
    FakeDaemon daemon([&](int connection) { received = FakeDaemon::ReadOnce(connection, 10000); });
    TamselClient(daemon.Path()).Exchange(request, 5000);
  }
  std::vector<byte> expected(64 + 4221);
  expected[8] = 2;
  expected[12] = 1;
  const std::vector<std::pair<std::size_t, std::vector<byte>>> payload_parts = {
      {0, {2, 0, 0, 0, 7, 5, 0, 2, 1}}, {222, {5, 3, 0, 0x11, 0x22, 0x33}}};
  for (const auto& [offset, bytes] : payload_parts) {
    std::copy(bytes.begin(), bytes.end(), expected.begin() + 64 + static_cast<long>(offset));
  }
  EXPECT_EQ(received, expected);
}

TEST(TamselClient, DaemonThatIsNotThereIsNotReachable) {
  for (const std::string& path : {std::string("/nonexistent/socket"), std::string(108, 'x')}) {
    EXPECT_EQ(TamselClient(path).Exchange(OneDeviceRequest(), 5000).outcome,
              Outcome::kNotReachable);
  }
}

TEST(RequestBuilder, TcpIpDeviceGoesIntoTheNextEntry) {
  TcpIpRequest request = OneDeviceRequest();
  ASSERT_EQ(AddTcpIpDevice(request, 1, "192.0.2.255", 65535, 32767, std::vector<byte>(126, 9)),
            std::nullopt);
  const NetworkParams& place = request.payload.port_params[1];
  EXPECT_EQ(request.header.channel_index + 0, 2);
  EXPECT_EQ(request.header.type + 0, kRequestDataTypeTCPIP);
  EXPECT_EQ(place.address, 1);
  EXPECT_STREQ(place.ip_address, "192.0.2.255");
  EXPECT_EQ(place.port + 0, 65535);
  EXPECT_EQ(place.timeout + 0, 32767);
  const SendData& frame = request.payload.send_data[1];
  EXPECT_EQ(frame.address, 1);
  EXPECT_EQ(frame.send_data[0], 126);
  EXPECT_EQ(frame.send_data[127], 9);
}

TEST(RequestBuilder, WrongDevicesAreRefusedAndLeaveNoTrace) {
  const struct {
    int address;
    const char* ip_address;
    int port;
    int timeout_ms;
    std::size_t frame_size;
  } cases[] = {
      {0, "192.0.2.1", 502, 1, 1},     {32, "192.0.2.1", 502, 1, 1},
      {31, "192.0.2.1", 502, 1, 1},    {1, "192.0.2.1", 0, 1, 1},
      {1, "192.0.2.1", 65536, 1, 1},   {1, "192.0.2.1", 502, -1, 1},
      {1, "192.0.2.1", 502, 32768, 1}, {1, "192.0.2.1", 502, 1, 0},
      {1, "192.0.2.1", 502, 1, 127},   {1, "host.example", 502, 1, 1},
      {1, "192.0.2.256", 502, 1, 1},   {1, "", 502, 1, 1},
      {1, "2001:db8::1", 502, 1, 1},   {1, "192.0.2.1 ", 502, 1, 1},
      {1, "192.0.2.001.2", 502, 1, 1},
  };
  const TcpIpRequest untouched = OneDeviceRequest();
  for (const auto& given : cases) {
    TcpIpRequest request = untouched;
    EXPECT_TRUE(AddTcpIpDevice(request, given.address, given.ip_address, given.port,
                               given.timeout_ms, std::vector<byte>(given.frame_size)))
        << given.address << ' ' << given.ip_address << ' ' << given.port;
    EXPECT_EQ(std::memcmp(&request, &untouched, sizeof(request)), 0);
  }
}

TEST(DeviceAnswer, RefusesWhatIsOutsideTheRecord) {
  ResponseReceiveData response = OneDeviceResponse();
  EXPECT_EQ(DeviceAnswer(response, 31).value().frame, (std::vector<byte>{4, 5}));
  EXPECT_FALSE(DeviceAnswer(response, 0));
  EXPECT_FALSE(DeviceAnswer(response, 32));
  for (const int length : {-1, 439}) {
    response.receive_data.receive_data[30].length = static_cast<std::int16_t>(length);
    EXPECT_FALSE(DeviceAnswer(response, 31)) << length;
  }
}

TEST(StatusText, NamesEachFailureOfACombination) {
  EXPECT_EQ(TcpDeviceStatusText(0), "ok");
  EXPECT_EQ(TcpDeviceStatusText(4 | 16), "connect failed + send or receive failed");
  EXPECT_EQ(TcpDeviceStatusText(8 | 32 | 1), "internal exception + unknown status 33");
  EXPECT_EQ(StatusText(99), "unknown status 99");
}

}  // namespace
}  // namespace tmsc
