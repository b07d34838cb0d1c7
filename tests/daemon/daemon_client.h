#ifndef TAMSEL_TESTS_DAEMON_CLIENT_H_
#define TAMSEL_TESTS_DAEMON_CLIENT_H_

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <set>
#include <string>
#include <vector>

#include "field_simulator.h"
#include "support/daemon_process.h"
#include "support/raw_client.h"
#include "tamsel_client.h"
#include "utility/descriptor.h"

namespace tmsc::test {

/// No byte of an answer, and a plain end.
inline void ExpectRefused(const Reply& reply) {
  EXPECT_EQ(reply.bytes.size(), 0U);
  EXPECT_EQ(reply.end, StreamEnd::kEnd);
}

/// A response with this type and status, all zero but in the slots of `addresses`.
inline void ExpectResponse(const ResponseReceiveData& response, int type, int status,
                           const std::set<int>& addresses = {}) {
  ResponseReceiveData expected{};
  expected.header.type = type;
  expected.receive_data.status = status;
  for (const int address : addresses) {
    expected.receive_data.receive_data[address - 1] =
        response.receive_data.receive_data[address - 1];
  }
  EXPECT_EQ(response.header.type, type);
  EXPECT_EQ(response.receive_data.status, status);
  EXPECT_EQ(std::memcmp(&response, &expected, sizeof(expected)), 0)
      << "bytes that nobody asked for";
}

inline void ExpectResponse(const Reply& reply, int type, int status,
                           const std::set<int>& addresses = {}) {
  ASSERT_TRUE(reply.IsResponse()) << reply.bytes.size() << " bytes";
  EXPECT_NE(reply.end, StreamEnd::kNone);
  ExpectResponse(reply.Response(), type, status, addresses);
}

constexpr int kRegister = 5;

/// Modbus/TCP framing of what follows the unit.
inline std::vector<byte> ModbusFrame(int unit, std::initializer_list<int> rest) {
  std::vector<byte> frame = {0, 1, 0, 0, 0, static_cast<byte>(rest.size() + 1)};
  frame.push_back(static_cast<byte>(unit));
  for (const int value : rest) {
    frame.push_back(static_cast<byte>(value));
  }
  return frame;
}

/// Reads one holding register.
inline std::vector<byte> ReadFrame(int unit, int start_register = kRegister) {
  return ModbusFrame(unit, {3, start_register >> 8, start_register, 0, 1});
}

/// The frame that answers ReadFrame.
inline std::vector<byte> AnswerFrame(int unit, int value) {
  return ModbusFrame(unit, {3, 2, value >> 8, value});
}

/// The answer of the simulated device with the address.
inline std::vector<byte> AnswerFrame(int address) {
  return AnswerFrame(address, address * 1000 + kRegister);
}

/// Simulated devices with addresses 1 to `count`, all with one fault, each on a port of its own.
class Devices {
 public:
  explicit Devices(int count = 1, const simulator::Fault& fault = simulator::FaultKind::kNone,
                   bool is_gateway = false)
      : count_(count), simulator_(Config(count, fault, is_gateway)) {
    simulator_.Start();
  }

  /// Reads one register of every device.
  TcpIpRequest Request(int channel, int timeout_ms = 300) const {
    TcpIpRequest request = MakeTcpIpRequest(channel);
    for (int address = 1; address <= count_; ++address) {
      EXPECT_FALSE(AddTcpIpDevice(request, address, "127.0.0.1", simulator_.Port(address),
                                  timeout_ms, ReadFrame(address)));
    }
    return request;
  }

  simulator::FieldSimulator* operator->() { return &simulator_; }

 private:
  static simulator::FieldSimulatorConfig Config(int count, const simulator::Fault& fault,
                                                bool is_gateway) {
    simulator::FieldSimulatorConfig config;
    config.is_same_port = is_gateway;
    for (int address = 1; address <= count; ++address) {
      config.devices.push_back({address, "127.0.0.1", 0, fault});
    }
    return config;
  }

  int count_;
  simulator::FieldSimulator simulator_;
};

/// The exchange of a well-behaved client; the response's status is -100 when there is none.
template <typename Request>
ResponseReceiveData Exchange(const DaemonProcess& daemon, const Request& request,
                             int deadline_ms = 15000) {
  const ExchangeResult result = TamselClient(daemon.SocketPath()).Exchange(request, deadline_ms);
  ResponseReceiveData response = result.response;
  if (result.outcome != Outcome::kAnswered) {
    response.receive_data.status = -100;
  }
  return response;
}

inline void ExpectAnswered(const ResponseReceiveData& response, int count) {
  std::set<int> addresses;
  for (int address = 1; address <= count; ++address) {
    addresses.insert(address);
    const auto answer = DeviceAnswer(response, address);
    ASSERT_TRUE(answer.has_value());
    EXPECT_EQ(answer->status, 0) << address;
    EXPECT_EQ(answer->frame, AnswerFrame(address)) << address;
  }
  ExpectResponse(response, kRequestDataTypeTCPIP, 0, addresses);
}

}  // namespace tmsc::test

#endif  // TAMSEL_TESTS_DAEMON_CLIENT_H_
