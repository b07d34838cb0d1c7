// The whole way of an RS485 request: client, daemon, serial library, pseudo-terminal, simulated
// bus.

#include <future>
#include <nlohmann/json.hpp>

#include "daemon_client.h"
#include "modbus/rtu_frame.h"
#include "vlm_rs485.h"

namespace tmsc::test {
namespace {

/// Reads the register of the devices with these addresses.
Rs485Request Request(int channel, int first, int last, int timeout_ms) {
  Rs485Request request = MakeRs485Request(channel, VLM_RS485_BAUD_115200);
  for (int address = first; address <= last; ++address) {
    const SetPortParams params = {
        static_cast<byte>(address), VLM_RS485_8N1, static_cast<std::int16_t>(timeout_ms), 0, 0, 0};
    EXPECT_FALSE(AddRs485Device(request, params, modbus::RtuFrame(address, ReadPdu())));
  }
  return request;
}

void ExpectValue(const ResponseReceiveData& response, int address, int value) {
  EXPECT_EQ(DeviceAnswer(response, address).value_or(DeviceReply{}).frame,
            modbus::RtuFrame(address, AnswerPdu(value)));
}

/// Three buses of 31 devices, and a daemon whose channels are connected to them.
class Rs485 : public ::testing::Test {
 protected:
  Rs485() : field_(Config()) { field_.Start(); }

  simulator::FieldSimulatorConfig Config() const {
    simulator::FieldSimulatorConfig config;
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      const std::string name = "RS485_PORT_" + std::to_string(channel);
      config.buses.push_back({folder_.Path(name), {}});
      for (int address = 1; address <= 31; ++address) {
        config.buses.back().devices.push_back({address});
      }
      ::setenv(name.c_str(), folder_.Path(name).c_str(), 1);
    }
    return config;
  }

  const TempFolder folder_;
  simulator::FieldSimulator field_;
};

TEST_F(Rs485, ThreeChannelsAtOnceAndABroadcast) {
  const DaemonProcess daemon;
  Rs485Request broadcast = MakeRs485Request(1, VLM_RS485_BAUD_115200);
  const modbus::Bytes frame = modbus::RtuFrame(0, {6, 0, kRegister, 0x12, 0x34});
  ASSERT_FALSE(AddRs485Device(broadcast, {1, VLM_RS485_8N1, 100, 0, 0, 0}, frame));
  EXPECT_TRUE(DeviceAnswer(Exchange(daemon, broadcast), 1)->frame.empty());
  std::vector<std::future<ResponseReceiveData>> responses;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    responses.push_back(std::async(std::launch::async, [&, channel] {
      return Exchange(daemon, Request(channel, 1, 31, 1000));
    }));
  }
  for (auto& future : responses) {
    const bool is_written = &future == &responses.front();
    const ResponseReceiveData response = future.get();
    for (int address = 1; address <= 31; ++address) {
      ExpectValue(response, address, is_written ? 0x1234 : address * 1000 + kRegister);
    }
  }
}

TEST_F(Rs485, APulledAdapterFailsAtOnceAndWorksAgainWhenItIsBack) {
  const DaemonProcess daemon;
  const Rs485Request request = Request(2, 3, 4, 5000);
  ExpectValue(Exchange(daemon, request), 3, 3000 + kRegister);
  field_.Unplug(1);
  const Stopwatch time;
  EXPECT_EQ(DeviceAnswer(Exchange(daemon, request), 4)->status, VLM_RS485_PORT_GONE);
  EXPECT_EQ(Exchange(daemon, request).receive_data.status,
            kDeviceCommunicationStatusStartComFailed);
  EXPECT_LT(time.Ms(), 4500);
  field_.Plug(1);
  ExpectValue(Exchange(daemon, request), 3, 3000 + kRegister);
}

TEST_F(Rs485, AStopDuringACycleIsInTime) {
  DaemonProcess daemon;
  for (int address = 1; address <= 31; ++address) {
    field_.SetFault(0, address, simulator::FaultKind::kSilence);
  }
  const RawClient client(daemon.SocketPath(), Request(1, 1, 31, 1000));
  ASSERT_TRUE(WaitFor(5000, [&] { return field_.RequestsReceived(0, 1) == 1; }));
  ExpectStops(daemon);
}

// 60 registers at 9600 baud come a few bytes at a time. Devices 1 to 3 answer, 4 is not there.
TEST(Rs485Line, LongAnswersAtLineSpeedAreWholeAndAWaitTakesNoProcessorTime) {
  constexpr int kTimeoutMs = 900;
  const TempFolder folder;
  simulator::FieldSimulator field({{}, false, {{folder.Path("bus"), {{1}, {2}, {3}}, 9600}}});
  field.Start();
  ::setenv("RS485_PORT_1", folder.Path("bus").c_str(), 1);
  const DaemonProcess daemon;
  Rs485Request request = MakeRs485Request(1, VLM_RS485_BAUD_9600);
  for (int address = 1; address <= 4; ++address) {
    const modbus::Bytes pdu =
        modbus::ReadRegistersPdu(modbus::kReadHoldingRegisters, kRegister, 60);
    // A silence of 255 ms, since this machine may pause for longer than a line.
    EXPECT_FALSE(AddRs485Device(request,
                                {static_cast<byte>(address), VLM_RS485_8N1, kTimeoutMs, 0, 255, 0},
                                modbus::RtuFrame(address, pdu)));
  }
  const auto processor_ms = [&daemon] {
    clockid_t clock{};
    timespec time{};
    EXPECT_EQ(::clock_getcpuclockid(daemon.Pid(), &clock), 0);
    EXPECT_EQ(::clock_gettime(clock, &time), 0);
    return time.tv_sec * 1000 + time.tv_nsec / 1000000;
  };
  const auto before = processor_ms();
  const ResponseReceiveData response = Exchange(daemon, request);
  EXPECT_LT(processor_ms() - before, kTimeoutMs / 3);
  for (int address = 1; address <= 3; ++address) {
    modbus::Bytes pdu = {modbus::kReadHoldingRegisters, 120};
    for (int i = 0; i < 60; ++i) {
      modbus::AppendWord(pdu, address * 1000 + kRegister + i);
    }
    EXPECT_EQ(DeviceAnswer(response, address).value_or(DeviceReply{}).frame,
              modbus::RtuFrame(address, pdu));
  }
  EXPECT_EQ(DeviceAnswer(response, 4)->status, VLM_RS485_NO_ANSWER);
}

// What `tamselctl settings` says of the log's growth: every line, and bytes within 10 %.
TEST_F(Rs485, TheLogGrowsAsTheSettingsCommandSays) {
  constexpr int kRequests = 3;
  const std::string mark = "LoggerCom.log ";
  for (int i = 0; i < 24; ++i) {
    const int level = i / 8;
    const int count = i % 2 == 0 ? 1 : 5;
    const bool is_rs485 = i / 2 % 2 == 1;
    const bool is_silent = i / 4 % 2 == 1;
    SCOPED_TRACE(i);
    const DaemonProcess daemon({{"LogLevel", std::to_string(level)}});
    const auto fault = is_silent ? simulator::FaultKind::kSilence : simulator::FaultKind::kNone;
    const Devices devices(count, fault);
    for (int address = 1; address <= count; ++address) {
      field_.SetFault(0, address, fault);
    }
    const auto grown_to = [&] {  // the last line of a request may follow its response
      std::string text;
      WaitFor(10000, [&] {
        SleepMs(text.empty() ? 0 : 50);
        return std::exchange(text, daemon.Console()).size() == text.size() && !text.empty();
      });
      return text;
    };
    std::string before;
    for (int request = 0; request <= kRequests; ++request) {
      const int timeout_ms = is_silent ? 30 : 2000;
      is_rs485 ? Exchange(daemon, Request(1, 1, count, timeout_ms))
               : Exchange(daemon, devices.Request(1, timeout_ms));
      before = request == 0 ? grown_to() : before;  // the first one opens the port
    }
    const std::string grown = grown_to().substr(before.size());
    const std::string poll = " --json --registers 1 --devices " + std::to_string(count) +
                             (is_rs485 ? " --transport rs485" : "");
    const auto cost = nlohmann::json::parse(
        RunShell(TAMSEL_BIN_DIR "/tamselctl settings" + poll)
            .output)["poll"]["levels"][level][is_silent ? "all_silent" : "all_answer"];
    EXPECT_EQ(CountText(grown, mark), kRequests * cost["lines_a_poll"].get<int>()) << grown;
    const double bytes = kRequests * cost["bytes_a_poll"].get<double>();
    EXPECT_NEAR(static_cast<double>(grown.size()) - 14.0 * CountText(grown, mark), bytes,
                bytes / 10);
  }
}

}  // namespace
}  // namespace tmsc::test
