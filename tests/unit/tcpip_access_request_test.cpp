#include "access_worker_request/tcpip_access_request.h"

#include <Poco/AutoPtr.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <functional>
#include <future>

#include "field_simulator.h"
#include "socket_manager/tcp_socket_manager.h"
#include "support/failing_memory.h"
#include "support/log_fixture.h"
#include "support/tcp_listener.h"

namespace tmsc {
namespace {

using simulator::Bytes;
using simulator::DeviceConfig;
using simulator::Fault;
using simulator::FaultKind;
using simulator::FieldSimulator;

constexpr int kUsualAnswer = 13;  // two registers

/// Devices on addresses of this process's own, 127.x.y.<device>, so that their log lines can be
/// told apart and the fixed port is free.
class TcpipAccessRequestTest : public test::LogFixture {
 protected:
  TcpipAccessRequestTest() {
    TCPSocketManager::Create();
    StartLog({{"TcpDrainTimeout", ""}});
  }
  ~TcpipAccessRequestTest() override { TCPSocketManager::Destroy(); }

  static std::string Ip(int device) {
    const int process = static_cast<int>(::getpid());
    return "127." + std::to_string(1 + process / 256 % 250) + "." + std::to_string(process % 256) +
           "." + std::to_string(device);
  }
  void StartDevices(const std::vector<Fault>& faults, std::uint16_t port = 0) {
    simulator::FieldSimulatorConfig config;
    for (const Fault& fault : faults) {
      DeviceConfig device;
      device.address = static_cast<int>(config.devices.size()) + 1;
      device.bind_address = Ip(device.address);
      device.port = port;
      device.fault = fault;
      config.devices.push_back(device);
    }
    field_ = std::make_unique<FieldSimulator>(config);
    field_->Start();
  }

  /// Fills entry `index` of the payload with a read of two registers of a simulated device.
  void Ask(int index, int device, int timeout) {
    NetworkParams& params = payload_.port_params[index];
    params.address = static_cast<byte>(device);
    SetIp(index, Ip(device));
    params.port = field_->Port(device);
    params.timeout = static_cast<std::int16_t>(timeout);
    SendData& send = payload_.send_data[index];
    send.address = static_cast<byte>(device);
    const Bytes frame = {0, 9, 0, 0, 0, 6, static_cast<byte>(device), 3, 0, 0, 0, 2};
    send.send_data[0] = static_cast<byte>(frame.size());
    send.send_data[1] = 0;
    std::copy(frame.begin(), frame.end(), send.send_data + 2);
  }
  void SetIp(int index, const std::string& text) {
    std::memset(payload_.port_params[index].ip_address, 0, sizeof(NetworkParams::ip_address));
    text.copy(payload_.port_params[index].ip_address, sizeof(NetworkParams::ip_address));
  }

  /// Executes the payload and takes the time.
  void Execute() {
    const test::Stopwatch start;
    std::promise<std::shared_ptr<CommunicationResult>> promise;
    auto future = promise.get_future();
    Poco::AutoPtr<TCPIPAccessRequest> request(
        new TCPIPAccessRequest(&header_, &payload_, &promise));
    request->Execute();
    ASSERT_EQ(std::future_status::ready, future.wait_for(std::chrono::seconds(0)));
    result_ = future.get();
    ASSERT_TRUE(result_);
    EXPECT_EQ(kRequestDataTypeTCPIP, result_->ReceiveData()->header.type);
    EXPECT_EQ(0, result_->ReceiveData()->receive_data.status);
    duration_ms_ = start.Ms();
  }
  const DeviceReceiveData& Slot(int device) const {
    return result_->ReceiveData()->receive_data.receive_data[device - 1];
  }
  void ExpectSlot(int device, int status, int length) const {
    EXPECT_EQ(status, Slot(device).status) << "device " << device;
    EXPECT_EQ(length, Slot(device).length) << "device " << device;
  }

  DataHeader header_{};
  DeviceAccessTCPIP payload_{};
  std::shared_ptr<CommunicationResult> result_;
  int duration_ms_ = 0;
  std::unique_ptr<FieldSimulator> field_;
};

TEST_F(TcpipAccessRequestTest, EveryKindOfAnswerInOneRequest) {
  const struct {
    Fault fault;
    int status;
    int length;
    const char* level;
    std::string before_ip;  // of a line of the log
    std::string after_ip;
  } rows[] = {
      {FaultKind::kNone, 0, kUsualAnswer, "D", "Dat Len [", "][13][6]"},
      {FaultKind::kRefuse, 4, 0, "D", "Con err.  [", "][111]"},
      {FaultKind::kSilence, 16, 0, "I", "Read dat err.[", "] size[-1]"},
      {FaultKind::kCloseBefore, 16, 0, "I", "Read dat err.[", "] size[0]"},
      {FaultKind::kCloseMidFrame, 16, 0, "I", "Read dat err.[", "]"},
      {FaultKind::kCloseAfter, 0, kUsualAnswer, "D", "rcvBytes [", "][000900000007"},
      {{FaultKind::kPieces, 1, 5}, 0, kUsualAnswer, "D", "Rcv dat [", "][13] / [13]"},
      {FaultKind::kSplitHeader, 0, kUsualAnswer, "D", "Dat Len [", "][13][6]"},
      {FaultKind::kLongest, 0, 438, "D", "Rcv dat [", "][438] / [438]"},
      {FaultKind::kTooLong, 16, 0, "I", "Rcv dat size too large.[", "]"},
      {FaultKind::kWrongLength, 16, 0, "I", "Read dat err.[", "]"},
      {FaultKind::kZeroLength, 0, 6, "D", "Dat Len [", "][6][6]"},
      {{FaultKind::kLate, 50}, 0, kUsualAnswer, "D", "sendBytes [", "][000900000006"},
  };
  std::vector<Fault> faults;
  for (const auto& row : rows) {
    faults.push_back(row.fault);
  }
  StartDevices(faults);
  for (int i = 0; i < static_cast<int>(faults.size()); ++i) {
    Ask(30 - i, i + 1, 1000);
  }
  Execute();
  EXPECT_LT(duration_ms_, 3500) << "about the time of the slowest device";
  const std::string log = StopLog();
  int device = 0;
  for (const auto& row : rows) {
    ++device;
    ExpectSlot(device, row.status, row.length);
    EXPECT_EQ(1, test::CountText(log, std::string("[") + row.level + "] TCPIPAUnit " +
                                          row.before_ip + Ip(device) + row.after_ip))
        << "device " << device;
  }
  EXPECT_EQ(0, std::memcmp("\0\x09\0\0\0\x07\x01\x03\x04\x03\xe8\x03\xe9", Slot(1).data, 13));
  EXPECT_EQ(7, Slot(5).data[5]) << "what came before the failure stays";
  for (int unused = device + 1; unused <= kMaxDeviceCountAtChannel; ++unused) {
    ExpectSlot(unused, 0, 0);
  }
}

TEST_F(TcpipAccessRequestTest, EntriesThatCannotBeRightAreNotExchanged) {
  StartDevices({FaultKind::kNone});
  const struct {
    const char* name;
    std::function<void(NetworkParams&, SendData&)> spoil;
    int status;
    const char* line;
  } rows[] = {
      {"address 32", [](auto&, auto& send) { send.address = 32; }, 0, "Dev addr err. dev[32]"},
      {"length 127", [](auto&, auto& send) { send.send_data[0] = 127; }, 16,
       "Snd dat len err. dev[1] len[127]"},
      {"length 65535", [](auto&, auto& send) { send.send_data[0] = send.send_data[1] = 255; }, 16,
       "Snd dat len err. dev[1] len[65535]"},
      {"no end", [this](auto&, auto&) { SetIp(0, "127.000.000.000001"); }, 4,
       "IP addr err. dev[1]"},
      {"name", [this](auto&, auto&) { SetIp(0, "localhost"); }, 4, "IP addr err. dev[1]"},
      {"short form", [this](auto&, auto&) { SetIp(0, "127.1"); }, 4, "IP addr err. dev[1]"},
      {"300", [this](auto&, auto&) { SetIp(0, "127.0.0.300"); }, 4, "IP addr err. dev[1]"},
      {"empty", [this](auto&, auto&) { SetIp(0, ""); }, 4, "IP addr err. dev[1]"},
      {"text behind", [this](auto&, auto&) { SetIp(0, Ip(1) + " x"); }, 4, "IP addr err. dev[1]"},
      {"port 0", [](auto& params, auto&) { params.port = 0; }, 4, "Port err. dev[1] port[0]"},
      {"port -1", [](auto& params, auto&) { params.port = -1; }, 4, "Port err. dev[1] port[-1]"},
      {"lowest port", [](auto& params, auto&) { params.port = INT_MIN; }, 4, "Port err. dev[1]"},
      {"port 70000", [](auto& params, auto&) { params.port = 70000; }, 4,
       "Port err. dev[1] port[70000]"},
      {"nothing to send", [](auto&, auto& send) { send.send_data[0] = 0; }, 0, nullptr},
      {"send address 0", [](auto&, auto& send) { send.address = 0; }, 0, nullptr},
      {"address 0", [](auto& params, auto&) { params.address = 0; }, 0, nullptr},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    StopLog();
    FileUtil::CreateFile(log_path_);
    StartLog();
    Ask(0, 1, 300);
    row.spoil(payload_.port_params[0], payload_.send_data[0]);
    Execute();
    ExpectSlot(1, row.status, 0);
    const std::string log = StopLog();
    EXPECT_EQ(row.line != nullptr ? 1 : 0, test::CountText(log, "[W] TCPIPAUnit ")) << log;
    EXPECT_EQ(row.line != nullptr,
              log.find(row.line != nullptr ? row.line : "[W]") != std::string::npos)
        << log;
  }
  EXPECT_EQ(0U, field_->RequestsReceived(1));
}

TEST_F(TcpipAccessRequestTest, FixedFramePortIgnoresTheLengthField) {
  StartDevices({FaultKind::kNone}, simulator::kFixedFramePort);
  Ask(0, 1, 500);
  Execute();
  ExpectSlot(1, 0, 133);
  const Bytes frame = simulator::FixedFrame();
  EXPECT_TRUE(std::equal(frame.begin(), frame.end(), Slot(1).data));
}

TEST_F(TcpipAccessRequestTest, ConnectionsArePooledUntilAnExchangeFails) {
  StartDevices({FaultKind::kNone, FaultKind::kCloseAfter});
  Ask(0, 1, 200);
  Ask(1, 2, 200);
  const int second_status[] = {0, 16, 0, 16};
  for (const int status : second_status) {
    Execute();
    ExpectSlot(1, 0, kUsualAnswer);
    ExpectSlot(2, status, status == 0 ? kUsualAnswer : 0);
    EXPECT_TRUE(test::WaitFor(5000, [&] { return field_->OpenConnections() == 1; }));
  }
  EXPECT_EQ(1U, field_->ConnectionsAccepted(1));
  EXPECT_EQ(2U, field_->ConnectionsAccepted(2));

  StopLog();
  StartLog({{"TcpReuseCheck", "1"}, {"TcpDrainTimeout", ""}});
  for (int i = 0; i < 3; ++i) {
    Execute();
    ExpectSlot(2, 0, kUsualAnswer);
    EXPECT_TRUE(test::WaitFor(5000, [&] { return field_->OpenConnections() == 1; }));
  }
  EXPECT_EQ(1U, field_->ConnectionsAccepted(1));
  EXPECT_EQ(5U, field_->ConnectionsAccepted(2));
}

TEST_F(TcpipAccessRequestTest, DeviceListedTwiceIsAskedOnceAfterTheOther) {
  StartDevices({{FaultKind::kDelay, 100}});
  for (int i = 0; i < 5; ++i) {
    Ask(i, 1, 1000);
  }
  StopLog();
  StartLog({{"TcpDrainTimeout", "50"}});
  Execute();
  ExpectSlot(1, 0, kUsualAnswer);
  EXPECT_EQ(1U, field_->ConnectionsAccepted(1));
  EXPECT_EQ(5U, field_->RequestsReceived(1));
  EXPECT_GE(duration_ms_, 5 * 150);
}

TEST_F(TcpipAccessRequestTest, DrainIsBounded) {
  StartDevices({FaultKind::kNone, FaultKind::kEndless, {FaultKind::kLate, 700}});
  const struct {
    int device;
    int timeout;
    const char* drain_setting;
    int shortest_ms;
    int longest_ms;
    unsigned int connections;  // that stay open
  } rows[] = {
      {1, 400, "", 400, 1400, 1},  {1, 0, "", 1000, 2000, 1},    {1, 3000, "100", 100, 1100, 1},
      {1, 3000, "0", 0, 1000, 1},  {3, 2600, "", 3000, 5000, 1}, {2, 0, "", 0, 4000, 0},
      {2, 300, "200", 0, 4000, 0}, {1, 300, "-1", 300, 1300, 1},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.device) + " " + std::to_string(row.timeout) + " " +
                 row.drain_setting);
    StopLog();
    StartLog({{"TcpDrainTimeout", row.drain_setting}});
    Ask(0, row.device, row.timeout);
    Execute();
    ExpectSlot(row.device, 0, kUsualAnswer);
    EXPECT_GE(duration_ms_, row.shortest_ms);
    EXPECT_LT(duration_ms_, row.longest_ms);
    EXPECT_TRUE(test::WaitFor(5000, [&] { return field_->OpenConnections() == row.connections; }));
    TCPSocketManager::GetInstance()->RemoveSocket(Ip(row.device), field_->Port(row.device),
                                                  row.device);
    EXPECT_TRUE(test::WaitFor(5000, [&] { return field_->OpenConnections() == 0; }));
  }
}

TEST_F(TcpipAccessRequestTest, ANegativeTimeoutEndsAtOnce) {
  StartDevices({FaultKind::kSilence, FaultKind::kSilence});
  Ask(0, 1, -1);
  Ask(1, 2, -32768);
  Execute();
  ExpectSlot(1, 16, 0);
  ExpectSlot(2, 16, 0);
  EXPECT_LT(duration_ms_, test::kSlackMs);
  EXPECT_EQ(1, test::CountText(StopLog(), "Read dat err.[" + Ip(1) + "] size[-1]"));
}

TEST_F(TcpipAccessRequestTest, AConnectionInUseIsWaitedForUntilTheDeadline) {
  StartDevices({FaultKind::kNone});
  Ask(0, 1, -5);  // four time-outs, of which a negative one is none, and 5 s
  const ExclusiveSocket held =
      TCPSocketManager::GetInstance()->LockSocket(Ip(1), field_->Port(1), 1);
  Execute();
  ExpectSlot(1, 4, 0);
  EXPECT_GE(duration_ms_, 5000);
  EXPECT_LT(duration_ms_, 5000 + test::kSlackMs);
  EXPECT_EQ(1, test::CountText(StopLog(), "[W] TCPIPAUnit Con in use [" + Ip(1) + "]"));
}

TEST_F(TcpipAccessRequestTest, NoSettingsAreNeeded) {
  StartDevices({FaultKind::kNone});
  Ask(0, 1, 100);
  StopLog();
  LoggerSettingManager::Destroy();
  Execute();
  ExpectSlot(1, 0, kUsualAnswer);
}

// Wherever memory fails, the device's failure is told and its connection is not used again.
TEST_F(TcpipAccessRequestTest, AnExceptionForgetsTheConnection) {
  StartDevices({FaultKind::kNone});
  Ask(0, 1, 30);
  const test::AnsweringDevice device({0, 1, 0, 0, 0, 5, 1, 3, 2, 0, 7});
  SetIp(0, "127.0.0.1");
  payload_.port_params[0].port = device.Port();
  Execute();
  int failures = 0;
  for (int first = 1; first < 40; ++first) {
    const int connections = device.Connections();
    const int requests = device.Requests();
    test::FailAllocations(first, first);
    Execute();
    test::FailAllocations(0, 0);
    const bool is_failed = Slot(1).status != 0;
    EXPECT_EQ(Slot(1).status, is_failed ? 8 : 0);
    const bool is_spoilt = is_failed && device.Requests() > requests;
    failures += is_spoilt ? 1 : 0;
    Execute();
    ExpectSlot(1, 0, 11);
    EXPECT_GE(device.Connections(), connections + (is_spoilt ? 1 : 0)) << first;
  }
  EXPECT_GT(failures, 0);
}

}  // namespace
}  // namespace tmsc
