#include "tamsel_client.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>

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

TEST(TamselClient, RepeatsWhileTheChannelIsBusy) {
  int count = 0;
  const FakeDaemon daemon([&](int connection) {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    FakeDaemon::Send(connection, {{}, {++count < 3 ? TAMSEL_STATUS_BUSY : TAMSEL_STATUS_OK, {}}});
  });
  const auto status = [&](std::size_t size, int busy_ms) {
    ResponseReceiveData response;
    const TcpIpRequest request = OneDeviceRequest();
    const int result =
        tamsel_exchange(daemon.Path().c_str(), &request, size, 2000, busy_ms, &response);
    return result < 0 ? result : response.receive_data.status;
  };
  EXPECT_EQ(status(sizeof(TcpIpRequest), 0), TAMSEL_STATUS_BUSY);
  EXPECT_EQ(status(sizeof(TcpIpRequest), 5000), TAMSEL_STATUS_OK);
  EXPECT_EQ(status(sizeof(Rs485Request), 0), TAMSEL_BAD_REQUEST);
}

TEST(TamselClient, FramesCodesAndTextsAreWithinTheirLimits) {
  const auto read = [](int transport, int unit, int start, int count) {
    byte frame[TAMSEL_MAX_FRAME_LENGTH];
    return tamsel_read_frame(transport, 0, unit, 4, start, count, frame);
  };
  EXPECT_TRUE(read(TAMSEL_TCPIP, 255, 65411, 125) == 12 && read(TAMSEL_RS485, 247, 0, 1) == 8);
  EXPECT_TRUE(read(TAMSEL_TCPIP, 1, 65412, 125) < 0 && read(TAMSEL_TCPIP, 1, 0, 126) < 0);
  EXPECT_TRUE(read(TAMSEL_TCPIP, 256, 0, 1) < 0 && read(TAMSEL_RS485, 248, 0, 1) < 0 &&
              read(TAMSEL_RS485, 0, 0, 1) < 0);
  const auto write = [values = std::vector<std::uint16_t>(57)](int transport, int count) {
    byte frame[TAMSEL_MAX_FRAME_LENGTH];
    return tamsel_write_frame(transport, 0, 0, 0, values.data(), count, frame);
  };
  EXPECT_TRUE(write(TAMSEL_RS485, 27) == 63 && write(TAMSEL_RS485, 28) < 0 &&
              write(TAMSEL_TCPIP, 56) == 125 && write(TAMSEL_TCPIP, 57) < 0);
  EXPECT_TRUE(tamsel_baud_of_code(10) == 921600 && tamsel_baud_of_code(11) == 0);
  EXPECT_TRUE(tamsel_baud_code(0) < 0 && tamsel_line_code("8n1") < 0 && !tamsel_line_of_code(12));
  char text[20] = "";
  EXPECT_STREQ(tamsel_device_status_text(TAMSEL_TCPIP, 255, text, 18), "connect failed + ");
}

TEST(TamselClient, AnswersThatDoNotFitAreToldApart) {
  const std::vector<byte> frame = FromHex("050300100001844B");
  const auto decode = [&](const std::string& digits) {
    const std::vector<byte> bytes = FromHex(digits);
    tamsel_answer answer;
    const int result = tamsel_decode_answer(TAMSEL_RS485, frame.data(), frame.size(), bytes.data(),
                                            bytes.size(), &answer);
    return result == TAMSEL_MODBUS_EXCEPTION ? answer.exception : result;
  };
  EXPECT_EQ(decode("050302123444F3"), TAMSEL_OK);
  EXPECT_EQ(decode("050302123444F4"), TAMSEL_WRONG_CHECK_SUM);
  EXPECT_EQ(decode("0583028130"), 2);
  EXPECT_EQ(decode("060302123400F3"), TAMSEL_OTHER_DEVICE);
  EXPECT_EQ(decode("05040212344587"), TAMSEL_WRONG_ANSWER);
}

TEST(TamselClient, ReadsTheHealthOfOneDevice) {
  const test::TempFolder folder;
  const auto file = std::make_unique<tamsel_health_file>();
  file->header = {TAMSEL_HEALTH_MAGIC, TAMSEL_HEALTH_VERSION, 0x01020304, sizeof(*file), {}};
  tamsel_health_device* devices = file->devices + tamsel_health_device_index(2, TAMSEL_TCPIP, 7);
  devices[0].exchanges = devices[1].exchanges = 17;
  devices[0].checksum = tamsel_health_checksum(&devices[0], sizeof(devices[0]));
  const auto read = [&](const std::string& name, int address) {
    tamsel_health_device device;
    const std::string path = folder.Path(name);
    const int result = tamsel_health_read_device(path.c_str(), 2, TAMSEL_TCPIP, address, &device);
    EXPECT_EQ(device.exchanges, result == TAMSEL_OK ? 17u : 0u);
    return result;
  };
  EXPECT_EQ(read("none", 7), TAMSEL_HEALTH_NOT_READ);
  EXPECT_EQ(read("", 7), TAMSEL_HEALTH_OTHER_FILE);
  test::WriteFile(folder.Path("whole"), {reinterpret_cast<const char*>(file.get()), sizeof(*file)});
  EXPECT_EQ(read("whole", 7), TAMSEL_OK);
  EXPECT_EQ(read("whole", 8), TAMSEL_HEALTH_DAMAGED);
  EXPECT_EQ(read("whole", 9), TAMSEL_HEALTH_NEVER);
  const auto cut = [&](std::size_t size) {
    test::WriteFile(folder.Path("cut"), {reinterpret_cast<const char*>(file.get()), size});
    return read("cut", 9);
  };
  for (const std::size_t size : {std::size_t{8}, sizeof(file->header), std::size_t{1024}}) {
    EXPECT_EQ(cut(size), TAMSEL_HEALTH_DAMAGED) << size;
  }
  EXPECT_EQ(cut(7), TAMSEL_HEALTH_OTHER_FILE);
  ++file->header.version;
  test::WriteFile(folder.Path("other"), {reinterpret_cast<const char*>(file.get()), sizeof(*file)});
  EXPECT_EQ(read("other", 7), TAMSEL_HEALTH_OTHER_LAYOUT);
}

}  // namespace
}  // namespace tmsc
