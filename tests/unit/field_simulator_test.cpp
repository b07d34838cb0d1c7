#include "field_simulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "socket_manager/tcp_socket.h"
#include "support/files.h"
#include "support/wait.h"

namespace tmsc::simulator {
namespace {

using modbus::RtuFrame;
using modbus::TcpFrame;

constexpr int kLimitMs = 5000;
const Bytes kRead = {3, 0, 0, 0, 2};
const Bytes kReply = {3, 4, 0x07, 0xD0, 0x07, 0xD1};  // of device 2

/// What comes for a request until that many bytes are there, or nothing comes for so long.
Bytes Ask(int client, const Bytes& request, std::size_t size, int limit_ms = kLimitMs) {
  EXPECT_EQ(static_cast<ssize_t>(request.size()), write(client, request.data(), request.size()));
  Bytes bytes;
  pollfd readable = {client, POLLIN, 0};
  std::uint8_t byte = 0;
  while (bytes.size() < size && poll(&readable, 1, limit_ms) == 1 && read(client, &byte, 1) == 1) {
    bytes.push_back(byte);
  }
  return bytes;
}

TEST(FieldSimulatorTest, RefusesAndListensAgainOnTheSamePort) {
  FieldSimulator field({{{2, "127.0.0.1", 0, FaultKind::kDelay}}, false});
  field.Start();
  TCPSocket client("127.0.0.1", field.Port(2));
  ASSERT_EQ(0, client.Connect(kLimitMs));
  Ask(client.GetDescriptor(), TcpFrame(9, 2, kRead), 0);  // due while the device refuses
  EXPECT_TRUE(test::WaitFor(kLimitMs, [&] { return field.RequestsReceived(2) == 1; }));
  for (const auto& [fault, result] : {std::pair(FaultKind::kRefuse, ECONNREFUSED),
                                      {FaultKind::kDelay, 0},
                                      {FaultKind::kUnaccepted, int{TCPSocket::kConnectTimeout}},
                                      {FaultKind::kRefuse, ECONNREFUSED},
                                      {FaultKind::kDelay, 0}}) {
    field.SetFault(2, fault);
    EXPECT_EQ(0U, field.OpenConnections());
    client.Close();
    ASSERT_EQ(result, client.Connect(fault == FaultKind::kUnaccepted ? 200 : kLimitMs));
  }
  EXPECT_EQ(TcpFrame(9, 2, kReply), Ask(client.GetDescriptor(), TcpFrame(9, 2, kRead), 13));
}

TEST(FieldSimulatorTest, AGatewayChoosesByUnit) {
  FieldSimulator field({{{2}, {3, "127.0.0.1", 0, FaultKind::kSilence}}, true});
  field.Start();
  TCPSocket client("127.0.0.1", field.Port(3));
  ASSERT_EQ(0, client.Connect(kLimitMs));
  EXPECT_EQ(Bytes(), Ask(client.GetDescriptor(), TcpFrame(9, 3, kRead), 1, 250));
  EXPECT_EQ(TcpFrame(9, 2, kReply), Ask(client.GetDescriptor(), TcpFrame(9, 2, kRead), 13));
  EXPECT_EQ(TcpFrame(9, 4, {0x83, 11}), Ask(client.GetDescriptor(), TcpFrame(9, 4, kRead), 9));
  EXPECT_THROW(field.SetFault(2, FaultKind::kRefuse), std::invalid_argument);
}

TEST(FaultTest, RefusesWhatDoesNotFit) {
  EXPECT_EQ(90, Fault::Parse("pieces:7:90").Parameter(1));
  EXPECT_EQ(500, Fault::OfRegister(20150, Transport::kTcp).value().Parameter(0));
  for (const char* text : {"", "pieces:0", "pieces:439", "delay:1x", "silence:1", "pieces:1:2:3"}) {
    EXPECT_THROW(Fault::Parse(text), std::invalid_argument) << text;
  }
  for (const int start : {19999, 20201, 20300, 21700, 22100}) {
    EXPECT_FALSE(Fault::OfRegister(start, Transport::kTcp)) << start;
  }
}

TEST(FieldSimulatorTest, ABusServesItsDevicesAndTheirFaultsAtThePaceOfTheLine) {
  const test::TempFolder folder;
  const std::string path = folder.Path("bus");
  EXPECT_EQ(0, symlink("/gone", path.c_str()));  // as one that was killed leaves it
  FieldSimulator field({{}, false, {{path, {{2}, {3}}, 2400}}});
  field.Start();
  Descriptor line;
  for (const Fault& fault : {Fault(FaultKind::kPieces, 8, 100), Fault()}) {
    field.Unplug(0);
    EXPECT_FALSE(std::filesystem::is_symlink(path));
    field.Plug(0);
    field.SetFault(0, 2, fault);
    line.Reset(open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    const test::Stopwatch time;
    EXPECT_EQ(RtuFrame(2, kReply), Ask(line.Get(), RtuFrame(2, kRead), 9));
    // The request's 8 characters, 3.5 of silence and the answer's 9.
    EXPECT_GE(time.Ms(), 20.5 * 11000 / 2400 - 1 + fault.Parameter(1));
  }
  for (const Bytes& unanswered : {RtuFrame(0, {6, 0, 1, 0x12, 0x34}), RtuFrame(0, {3}),
                                  Bytes{2, 3, 0, 0, 0, 2, 9, 9}, RtuFrame(4, kRead)}) {
    EXPECT_EQ(Bytes(), Ask(line.Get(), unanswered, 1, 250));
  }
  const Bytes first = RtuFrame(3, {3, 4, 0x0B, 0xB8, 0x12, 0x34});
  // In two parts; again when this machine pauses for longer between them than the bus waits.
  EXPECT_TRUE(test::WaitFor(kLimitMs, [&] {
    Ask(line.Get(), {3, 3, 0, 0}, 0);
    return Ask(line.Get(), {0, 2, 0xc5, 0xe9}, 9, 500) == first;
  }));
  EXPECT_EQ(3U, field.RequestsReceived(0, 3));
  EXPECT_EQ(RtuFrame(2, {0xC1, 1}), Ask(line.Get(), RtuFrame(2, {0x41, 9, 9}), 5));
  const auto read = [](int start) { return RtuFrame(3, modbus::ReadRegistersPdu(3, start, 2)); };
  const Bytes next = RtuFrame(3, {3, 4, 0x0B, 0xBA, 0x0B, 0xBB});
  EXPECT_EQ(2U, Ask(line.Get(), read(21702), 2).size());
  EXPECT_EQ(first, Ask(line.Get(), {}, 9));
  EXPECT_NE(first, Ask(line.Get(), read(21800), 9));
  EXPECT_EQ(RtuFrame(4, {3, 4, 0x0B, 0xB8, 0x12, 0x34}), Ask(line.Get(), read(21900), 9));
  // Half a second late: the next answer overtakes a stray one and waits for any other.
  for (const bool is_stray : {true, false}) {
    Ask(line.Get(), read(is_stray ? 21450 : 20150), 0);
    EXPECT_EQ(is_stray ? next : first, Ask(line.Get(), read(2), 9));
    EXPECT_EQ(is_stray ? first : next, Ask(line.Get(), {}, 9));
  }
}

}  // namespace
}  // namespace tmsc::simulator
