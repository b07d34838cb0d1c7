#include "access_worker_request/tcpip_access_request.h"

#include <Poco/AutoPtr.h>
#include <unistd.h>

#include "field_simulator.h"
#include "socket_manager/tcp_socket_manager.h"
#include "support/failing_memory.h"
#include "support/log_fixture.h"
#include "support/tcp_listener.h"

namespace tmsc {
namespace {

using simulator::Fault;
using simulator::FaultKind;

constexpr int kUsualAnswer = 13;  // two registers

/// Devices on addresses of this process's own, 127.x.y.<device>, so that their log lines can be
/// told apart and the fixed port is free.
class TcpipAccessRequestTest : public test::LogFixture {
 protected:
  TcpipAccessRequestTest() {
    TCPSocketManager::Create();
    StartLog();
  }
  ~TcpipAccessRequestTest() override { TCPSocketManager::Destroy(); }

  static std::string Ip(int device) {
    const int process = static_cast<int>(::getpid());
    return "127." + std::to_string(1 + process / 256 % 250) + "." + std::to_string(process % 256) +
           "." + std::to_string(device);
  }
  /// The device `fixed`, if any, has the port of fixed frames.
  void StartDevices(const std::vector<Fault>& faults, int fixed = 0) {
    simulator::FieldSimulatorConfig config;
    for (const Fault& fault : faults) {
      const int device = static_cast<int>(config.devices.size()) + 1;
      const int port = device == fixed ? simulator::kFixedFramePort : 0;
      config.devices.push_back({device, Ip(device), static_cast<std::uint16_t>(port), fault});
    }
    field_ = std::make_unique<simulator::FieldSimulator>(config);
    field_->Start();
  }

  /// Fills entry `index` of the payload with a read of two registers of a simulated device.
  void Ask(int index, int device, int timeout) {
    const byte address = static_cast<byte>(device);
    payload_.port_params[index] = {
        address, {}, field_->Port(device), 0, static_cast<std::int16_t>(timeout)};
    SetIp(index, Ip(device));
    payload_.send_data[index] = {address, {12, 0, 0, 9, 0, 0, 0, 6, address, 3, 0, 0, 0, 2}};
  }
  void SetIp(int index, const std::string& text) {
    char(&field)[18] = payload_.port_params[index].ip_address;
    (text + std::string(sizeof(field), '\0')).copy(field, sizeof(field));
  }

  /// Executes the payload, for which no header is needed, and takes the time.
  void Execute() {
    const test::Stopwatch watch;
    std::promise<std::shared_ptr<CommunicationResult>> promise;
    Poco::AutoPtr<Request>(new TCPIPAccessRequest(nullptr, &payload_, &promise))->Execute();
    response_ = *promise.get_future().get()->ReceiveData();
    duration_ms_ = watch.Ms();
    EXPECT_EQ(kRequestDataTypeTCPIP, int{response_.header.type});
    EXPECT_EQ(0, int{response_.receive_data.status});
  }
  const DeviceReceiveData& Slot(int device) const {
    return response_.receive_data.receive_data[device - 1];
  }
  void ExpectSlot(int device, int status, int length) const {
    EXPECT_EQ(status, Slot(device).status) << "device " << device;
    EXPECT_EQ(length, int{Slot(device).length}) << "device " << device;
  }
  void ExpectConnections(int count) const {
    EXPECT_TRUE(
        test::WaitFor(5000, [&] { return static_cast<int>(field_->OpenConnections()) == count; }));
  }

  const test::AnsweringDevice answering_;
  DeviceAccessTCPIP payload_{};
  ResponseReceiveData response_{};
  int duration_ms_ = 0;
  std::unique_ptr<simulator::FieldSimulator> field_;
};

TEST_F(TcpipAccessRequestTest, EveryKindOfAnswerInOneRequest) {
  // The fault, its status and length, and what stands before and after the IP in the log.
  const std::tuple<Fault, int, int, std::string, std::string> rows[] = {
      {FaultKind::kNone, 0, kUsualAnswer, "[D] TCPIPAUnit rcvBytes [", "][000900000007"},
      {FaultKind::kNone, 0, 133, "[D] TCPIPAUnit Dat Len [", "][133][6]"},
      {FaultKind::kRefuse, 4, 0, "[D] TCPIPAUnit Con err.  [", "][111]"},
      {FaultKind::kSilence, 16, 0, "[I] TCPIPAUnit Read dat err.[", "] size[-1]"},
      {FaultKind::kCloseBefore, 16, 0, "[I] TCPIPAUnit Read dat err.[", "] size[0]"},
      {FaultKind::kCloseMidFrame, 16, 0, "[I] TCPIPAUnit Read dat err.[", "]"},
      {{FaultKind::kPieces, 1, 5}, 0, kUsualAnswer, "[D] TCPIPAUnit Rcv dat [", "][13] / [13]"},
      {FaultKind::kLongest, 0, 438, "[D] TCPIPAUnit Rcv dat [", "][438] / [438]"},
      {FaultKind::kTooLong, 16, 0, "[I] TCPIPAUnit Rcv dat size too large.[", "]"},
      {FaultKind::kWrongLength, 16, 0, "[I] TCPIPAUnit Read dat err.[", "]"},
      {FaultKind::kZeroLength, 0, 6, "[D] TCPIPAUnit sendBytes [", "][000900000006"},
  };
  std::vector<Fault> faults;
  for (const auto& row : rows) {
    faults.push_back(std::get<Fault>(row));
  }
  StartDevices(faults, 2);
  for (int i = 0; i < static_cast<int>(faults.size()); ++i) {
    Ask(30 - i, i + 1, 1000);
  }
  Execute();
  EXPECT_LT(duration_ms_, 3500) << "about the time of the slowest device";
  const std::string log = StopLog();
  int device = 0;
  for (const auto& [fault, status, length, before_ip, after_ip] : rows) {
    ++device;
    ExpectSlot(device, status, length);
    EXPECT_EQ(1, test::CountText(log, before_ip + Ip(device) + after_ip)) << device;
  }
  ExpectSlot(31, 0, 0);
  EXPECT_EQ(0, std::memcmp("\0\x09\0\0\0\x07\x01\x03\x04\x03\xe8\x03\xe9", Slot(1).data, 13));
  EXPECT_EQ(0, std::memcmp(simulator::FixedFrame().data(), Slot(2).data, 133));
  EXPECT_EQ(7, Slot(6).data[5]) << "what came before the failure stays";
}

TEST_F(TcpipAccessRequestTest, EntriesThatCannotBeRightAreNotExchanged) {
  StartDevices({FaultKind::kNone});
  NetworkParams& params = payload_.port_params[0];
  SendData& send = payload_.send_data[0];
  const std::tuple<std::function<void()>, int, std::string> rows[] = {
      {[&] { send.address = 32; }, 0, "Dev addr err. dev[32]"},
      {[&] { send.send_data[0] = 127; }, 16, "Snd dat len err. dev[1] len[127]"},
      {[&] { send.send_data[1] = 255; }, 16, "Snd dat len err. dev[1] len[65292]"},
      {[&] { SetIp(0, "127.000.000.000001"); }, 4, "IP addr err. dev[1]"},
      {[&] { SetIp(0, ""); }, 4, "IP addr err. dev[1]"},
      {[&] { SetIp(0, "127.0.0.300"); }, 4, "IP addr err. dev[1]"},
      {[&] { SetIp(0, "127.0.0.1x"); }, 4, "IP addr err. dev[1]"},
      {[&] { params.port = 0; }, 4, "Port err. dev[1] port[0]"},
      {[&] { params.port = -1; }, 4, "Port err. dev[1] port[-1]"},
      {[&] { params.port = 65536; }, 4, "Port err. dev[1] port[65536]"},
      {[&] { send.send_data[0] = 0; }, 0, ""},
      {[&] { send.address = 0; }, 0, ""},
      {[&] { params.address = 0; }, 0, ""},
  };
  std::string expected;
  for (const auto& [spoil, status, line] : rows) {
    Ask(0, 1, 300);
    spoil();
    Execute();
    ExpectSlot(1, status, 0);
    expected += line.empty() ? "" : "[W] TCPIPAUnit " + line + "\n";
  }
  std::string warnings;
  for (const std::string& line : test::Lines(StopLog())) {
    warnings += test::Contains(line, "[W] ") ? line.substr(line.find("[W] ")) + "\n" : "";
  }
  EXPECT_EQ(warnings, expected);
  EXPECT_EQ(0U, field_->RequestsReceived(1));
}

TEST_F(TcpipAccessRequestTest, AnAddressTextIsWhatInetAtonReads) {
  StartDevices({FaultKind::kNone});
  for (const std::string& text : {Ip(1) + "  ", Ip(1) + " x", "0x7f" + Ip(1).substr(3)}) {
    Ask(0, 1, 1000);
    SetIp(0, text);
    Execute();
    ExpectSlot(1, 0, kUsualAnswer);
  }
  SetIp(0, Ip(1) + " \n");  // would end a line of the log
  Execute();
  ExpectSlot(1, 4, 0);
}

TEST_F(TcpipAccessRequestTest, ConnectionsArePooledUntilAnExchangeFails) {
  StartDevices({FaultKind::kNone, FaultKind::kCloseAfter});
  Ask(0, 1, 1000);
  Ask(1, 2, 1000);
  for (const auto& [status, reuse_check] :
       {std::pair(0, "0"), std::pair(16, "0"), std::pair(0, "0"), std::pair(0, "1")}) {
    UseSettings({{"TcpReuseCheck", reuse_check}});
    Execute();
    ExpectSlot(1, 0, kUsualAnswer);
    ExpectSlot(2, status, status == 0 ? kUsualAnswer : 0);
    ExpectConnections(1);
  }
  EXPECT_EQ(1U, field_->ConnectionsAccepted(1));
}

TEST_F(TcpipAccessRequestTest, DeviceListedTwiceIsAskedOnceAfterTheOther) {
  StartDevices({{FaultKind::kDelay, 100}});
  for (int i = 0; i < 5; ++i) {
    Ask(i, 1, 1000);
  }
  UseSettings({{"TcpDrainTimeout", "50"}});
  Execute();
  ExpectSlot(1, 0, kUsualAnswer);
  EXPECT_EQ(5U, field_->RequestsReceived(1));
  EXPECT_GE(duration_ms_, 5 * 150);
}

TEST_F(TcpipAccessRequestTest, DrainIsBounded) {
  const Fault none = FaultKind::kNone;
  StartDevices({none, none, none, none, {FaultKind::kLate, 300}, FaultKind::kEndless});
  // The device's time-out, the setting, and how long it takes at least.
  const std::tuple<int, const char*, int> rows[] = {{1500, "", 1500},   {0, "", 1000},
                                                    {3000, "100", 100}, {3000, "0", 0},
                                                    {0, "600", 900},    {0, "", 0}};
  int device = 0;
  for (const auto& [timeout, setting, shortest_ms] : rows) {
    ++device;
    UseSettings({{"TcpDrainTimeout", setting}});
    Ask(0, device, timeout);
    Execute();
    ExpectSlot(device, 0, kUsualAnswer);
    EXPECT_GE(duration_ms_, shortest_ms) << device;
    EXPECT_LT(duration_ms_, shortest_ms + 1000 + test::kSlackMs) << device;
    ExpectConnections(std::min(device, 5));  // the endless one's is forgotten
  }
  LoggerSettingManager::Destroy();  // nobody needs settings
  Execute();
  ExpectSlot(6, 0, kUsualAnswer);
}

TEST_F(TcpipAccessRequestTest, AConnectionInUseIsWaitedForUntilTheDeadline) {
  StartDevices({FaultKind::kSilence});
  Ask(0, 1, -5);  // four time-outs, of which a negative one is none, and 5 s
  ExclusiveSocket held = TCPSocketManager::GetInstance()->LockSocket(Ip(1), field_->Port(1), 1);
  Execute();
  ExpectSlot(1, 4, 0);
  EXPECT_GE(duration_ms_, 5000);
  EXPECT_LT(duration_ms_, 5000 + test::kSlackMs);
  EXPECT_EQ(1, test::CountText(StopLog(), "[W] TCPIPAUnit Con in use [" + Ip(1) + "]"));
  held = {};
  Execute();
  ExpectSlot(1, 16, 0);
  EXPECT_LT(duration_ms_, test::kSlackMs) << "a negative time-out ends at once";
}

// Wherever memory fails, the device's failure is told and its connection is not used again.
TEST_F(TcpipAccessRequestTest, AnExceptionForgetsTheConnection) {
  StartDevices({FaultKind::kNone});
  Ask(0, 1, 1000);
  SetIp(0, "127.0.0.1");
  payload_.port_params[0].port = answering_.Port();
  Execute();
  int failures = 0;
  for (int i = 2; i < 80; ++i) {
    const int connections = answering_.connections;
    const int requests = answering_.requests;
    test::FailAllocations(i / 2, i % 2 == 0 ? i / 2 : 1000);  // one, or all from there on
    Execute();
    test::FailAllocations(0, 0);
    const bool is_failed = Slot(1).status != 0;
    EXPECT_EQ(Slot(1).status, is_failed ? 8 : 0);
    const bool is_spoilt = is_failed && answering_.requests > requests;
    failures += is_spoilt ? 1 : 0;
    Execute();
    ExpectSlot(1, 0, 11);
    EXPECT_GE(answering_.connections, connections + (is_spoilt ? 1 : 0)) << i;
  }
  EXPECT_GT(failures, 0);
}

}  // namespace
}  // namespace tmsc
