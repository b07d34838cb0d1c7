// The whole way of an RS485 request: client, daemon, serial library, pseudo-terminal, simulated
// bus.

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>

#include "daemon_client.h"
#include "modbus/crc16.h"
#include "vlm_rs485.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

constexpr byte kBaudCode = VLM_RS485_BAUD_115200;

std::vector<byte> WithCrc(std::vector<byte> frame) {
  modbus::AppendCrc(frame);
  return frame;
}

std::vector<byte> ReadRegister(int address, int start) {
  return WithCrc({static_cast<byte>(address), 3, static_cast<byte>(start >> 8),
                  static_cast<byte>(start), 0, 1});
}

/// A simulated register r of device n holds n * 1000 + r.
std::vector<byte> RegisterAnswer(int address, int start) {
  const int value = address * 1000 + start;
  return WithCrc(
      {static_cast<byte>(address), 3, 2, static_cast<byte>(value >> 8), static_cast<byte>(value)});
}

/// Three buses of 31 devices, and a daemon whose channels are connected to them.
class Rs485 : public ::testing::Test {
 protected:
  Rs485() {
    simulator::FieldSimulatorConfig config;
    for (int channel = 1; channel <= kMaxChannel; ++channel) {
      simulator::RtuBusConfig bus;
      bus.path = folder_.Path("bus" + std::to_string(channel));
      for (int address = 1; address <= 31; ++address) {
        bus.devices.push_back({address});
      }
      config.buses.push_back(bus);
      ::setenv(("RS485_PORT_" + std::to_string(channel)).c_str(), bus.path.c_str(), 1);
    }
    simulator_ = std::make_unique<simulator::FieldSimulator>(config);
    simulator_->Start();
    daemon_ = std::make_unique<DaemonProcess>();
  }

  static Rs485Request Request(int channel, const std::vector<int>& addresses, int timeout_ms = 500,
                              int start = 7) {
    Rs485Request request = MakeRs485Request(channel, kBaudCode);
    for (const int address : addresses) {
      // An answer may come in dribbles: 10 ms of silence end it.
      const SetPortParams params = {static_cast<byte>(address),
                                    VLM_RS485_8N1,
                                    static_cast<std::int16_t>(timeout_ms),
                                    0,
                                    10,
                                    0};
      EXPECT_FALSE(AddRs485Device(request, params, ReadRegister(address, start)));
    }
    return request;
  }
  static DeviceReply Reply(const ResponseReceiveData& response, int address) {
    return DeviceAnswer(response, address).value_or(DeviceReply{255, {}});
  }
  ResponseReceiveData Serve(const Rs485Request& request) { return Exchange(*daemon_, request); }

  TempFolder folder_;
  std::unique_ptr<simulator::FieldSimulator> simulator_;
  std::unique_ptr<DaemonProcess> daemon_;
};

TEST_F(Rs485, ThreeChannelsAtOnceAndABroadcast) {
  std::vector<int> all;
  for (int address = 1; address <= 31; ++address) {
    all.push_back(address);
  }
  Rs485Request broadcast = MakeRs485Request(1, kBaudCode);
  const SetPortParams params = {1, VLM_RS485_8N1, 100, 0, 0, 0};
  ASSERT_FALSE(AddRs485Device(broadcast, params, WithCrc({0, 6, 0, 7, 0x12, 0x34})));
  EXPECT_TRUE(Reply(Serve(broadcast), 1).frame.empty());
  std::vector<std::future<ResponseReceiveData>> responses;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    responses.push_back(
        std::async(std::launch::async, [&, channel] { return Serve(Request(channel, all, 500)); }));
  }
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    const ResponseReceiveData response = responses[static_cast<std::size_t>(channel - 1)].get();
    for (const int address : all) {
      EXPECT_EQ(Reply(response, address).frame,
                channel == 1 ? WithCrc({static_cast<byte>(address), 3, 2, 0x12, 0x34})
                             : RegisterAnswer(address, 7))
          << channel << " " << address;
    }
  }
}

TEST_F(Rs485, APulledAdapterFailsAtOnceAndWorksAgainWhenItIsBack) {
  EXPECT_EQ(Reply(Serve(Request(2, {3})), 3).frame, RegisterAnswer(3, 7));
  simulator_->Unplug(1);
  const Stopwatch time;
  EXPECT_EQ(Reply(Serve(Request(2, {3, 4}, 5000)), 4).status, VLM_RS485_PORT_GONE);
  EXPECT_EQ(Serve(Request(2, {3}, 5000)).receive_data.status,
            kDeviceCommunicationStatusStartComFailed);
  EXPECT_LT(time.Ms(), 1000 + kSlackMs);
  simulator_->Plug(1);
  EXPECT_EQ(Reply(Serve(Request(2, {3})), 3).frame, RegisterAnswer(3, 7));
}

TEST_F(Rs485, AStopDuringACycleIsInTime) {
  for (int address = 1; address <= 31; ++address) {
    simulator_->SetFault(0, address, FaultKind::kSilence);
  }
  std::vector<int> addresses(31);
  for (int i = 0; i < 31; ++i) {
    addresses[static_cast<std::size_t>(i)] = i + 1;
  }
  const RawClient client(daemon_->SocketPath(), Request(1, addresses, 1000));
  ASSERT_TRUE(WaitFor(3000, [&] { return simulator_->RequestsReceived(0, 1) == 1; }));
  const Stopwatch time;
  daemon_->Signal(SIGTERM);
  EXPECT_EQ(daemon_->WaitForExit(5000), 0);
  EXPECT_LT(time.Ms(), 500 + 2500 + kSlackMs);
}

}  // namespace
}  // namespace tmsc::test
