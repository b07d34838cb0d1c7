#ifndef TAMSEL_TESTS_DAEMON_CLIENT_H_
#define TAMSEL_TESTS_DAEMON_CLIENT_H_

#include "field_simulator.h"
#include "modbus/tcp_frame.h"
#include "support/daemon_process.h"
#include "support/raw_client.h"

namespace tmsc::test {

/// A register of the simulated devices, which holds address * 1000 + kRegister.
constexpr int kRegister = 5;

inline modbus::Bytes ReadPdu() {
  return modbus::ReadRegistersPdu(modbus::kReadHoldingRegisters, kRegister, 1);
}
inline modbus::Bytes AnswerPdu(int value) {
  modbus::Bytes pdu = {modbus::kReadHoldingRegisters, 2};
  modbus::AppendWord(pdu, value);
  return pdu;
}

/// Simulated devices with addresses 1 to `count`, all with one fault, each on a port of its own.
class Devices : public simulator::FieldSimulator {
 public:
  explicit Devices(int count = 1, const simulator::Fault& fault = simulator::FaultKind::kNone)
      : FieldSimulator(Config(count, fault)), count_(count) {
    Start();
  }

  /// Reads the register of every device.
  TcpIpRequest Request(int channel, int timeout_ms = 1000) const {
    TcpIpRequest request = MakeTcpIpRequest(channel);
    for (int address = 1; address <= count_; ++address) {
      EXPECT_FALSE(AddTcpIpDevice(request, address, "127.0.0.1", Port(address), timeout_ms,
                                  modbus::TcpFrame(1, address, ReadPdu())));
    }
    return request;
  }

 private:
  static simulator::FieldSimulatorConfig Config(int count, const simulator::Fault& fault) {
    simulator::FieldSimulatorConfig config;
    for (int address = 1; address <= count; ++address) {
      config.devices.push_back({address, "127.0.0.1", 0, fault});
    }
    return config;
  }

  int count_;
};

/// The exchange of a well-behaved client; the response's status is -100 when there is none.
template <typename Request>
ResponseReceiveData Exchange(const DaemonProcess& daemon, const Request& request) {
  ExchangeResult result = TamselClient(daemon.SocketPath()).Exchange(request, 15000);
  if (result.outcome != Outcome::kAnswered) {
    result.response.receive_data.status = -100;
  }
  return result.response;
}

/// All channels are free, or will be soon.
inline void ExpectServes(const DaemonProcess& daemon) {
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    EXPECT_TRUE(WaitFor(5000, [&] {
      return Exchange(daemon, MakeTcpIpRequest(channel)).receive_data.status == 0;
    })) << channel;
  }
}

/// A response with this type and status, all zero but in the slots of the first `count` devices.
inline void ExpectResponse(ResponseReceiveData response, int type, int status, int count = 0) {
  EXPECT_EQ(response.header.type, type);
  EXPECT_EQ(response.receive_data.status, status);
  response.header.type = response.receive_data.status = 0;
  std::fill_n(response.receive_data.receive_data, count, DeviceReceiveData{});
  const ResponseReceiveData nothing{};
  EXPECT_EQ(std::memcmp(&response, &nothing, sizeof(nothing)), 0) << "bytes nobody asked for";
}

/// The answers of the first `count` simulated devices.
inline void ExpectAnswered(const ResponseReceiveData& response, int count) {
  ExpectResponse(response, kRequestDataTypeTCPIP, 0, count);
  for (int address = 1; address <= count; ++address) {
    const auto [status, frame] = DeviceAnswer(response, address).value_or(DeviceReply{255, {}});
    EXPECT_EQ(status, 0) << address;
    EXPECT_EQ(frame, modbus::TcpFrame(1, address, AnswerPdu(address * 1000 + kRegister)));
  }
}

/// No byte of an answer, and a plain end.
inline void ExpectRefused(const Reply& reply) {
  EXPECT_EQ(reply.bytes.size(), 0U);
  EXPECT_EQ(reply.end, StreamEnd::kEnd);
}

/// What the daemon does on SIGTERM or SIGUSR1 within a pass and what the stop itself may take.
inline void ExpectStops(DaemonProcess& daemon, int signal = SIGTERM, int limit_ms = 500 + 2500) {
  const Stopwatch watch;
  daemon.Signal(signal);
  EXPECT_EQ(daemon.WaitForExit(limit_ms + 5000), 0);
  EXPECT_LT(watch.Ms(), limit_ms + kSlackMs);
  EXPECT_TRUE(Contains(daemon.Console(), "Kill comp."));
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_DAEMON_CLIENT_H_
