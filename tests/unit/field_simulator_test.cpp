#include "field_simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <stdexcept>

#include "modbus/rtu_frame.h"
#include "modbus/tcp_frame.h"
#include "support/files.h"
#include "support/wait.h"
#include "utility/descriptor.h"

namespace tmsc::simulator {
namespace {

using modbus::RtuFrame;

constexpr int kLimitMs = 5000;

/// Not open when the device refuses.
Descriptor Connect(std::uint16_t port) {
  Descriptor client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in endpoint{};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(port);
  endpoint.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(client.Get(), reinterpret_cast<sockaddr*>(&endpoint), sizeof(endpoint)) != 0) {
    client.Reset();
  }
  return client;
}

/// What comes until that many bytes are there, the other side closes or nothing comes in time.
Bytes Receive(const Descriptor& client, std::size_t size, int limit_ms = kLimitMs) {
  Bytes bytes;
  pollfd readable = {client.Get(), POLLIN, 0};
  std::uint8_t byte = 0;
  while (bytes.size() < size && poll(&readable, 1, limit_ms) == 1 &&
         read(client.Get(), &byte, 1) == 1) {
    bytes.push_back(byte);
  }
  return bytes;
}

Bytes Ask(const Descriptor& client, const Bytes& request, std::size_t size,
          int limit_ms = kLimitMs) {
  EXPECT_EQ(static_cast<ssize_t>(request.size()),
            write(client.Get(), request.data(), request.size()));
  return Receive(client, size, limit_ms);
}

bool IsSilent(const Descriptor& client, const Bytes& request) {
  return Ask(client, request, 1, 50).empty();
}

bool IsClosed(const Descriptor& client) {
  pollfd readable = {client.Get(), POLLIN, 0};
  char byte = 0;
  return poll(&readable, 1, kLimitMs) == 1 && read(client.Get(), &byte, 1) <= 0;
}

Bytes TcpRead(int unit) {
  return modbus::TcpFrame(9, unit, modbus::ReadRegistersPdu(3, 0, 2));
}

Bytes RtuRead(int address, int start = 0) {
  return RtuFrame(address, modbus::ReadRegistersPdu(3, start, 2));
}

TEST(FieldSimulatorTest, RefusesAndListensAgainOnTheSamePort) {
  FieldSimulator field({{{2, "127.0.0.1", 0, FaultKind::kRefuse}}});
  field.Start();
  const std::uint16_t port = field.Port(2);
  EXPECT_FALSE(Connect(port).IsOpen());
  field.SetFault(2, {FaultKind::kDelay, 100});
  const Descriptor client = Connect(port);
  EXPECT_TRUE(IsSilent(client, TcpRead(2)));
  field.SetFault(2, FaultKind::kRefuse);
  EXPECT_TRUE(IsClosed(client));
  EXPECT_FALSE(Connect(port).IsOpen());
  test::SleepMs(100);  // the answer of the closed connection is due and does no harm
  field.SetFault(2, FaultKind::kNone);
  EXPECT_EQ(13U, Ask(Connect(port), TcpRead(2), 13).size());
}

TEST(FieldSimulatorTest, AGatewayChoosesByUnitAndWritesStay) {
  FieldSimulator field({{{2}, {3, "127.0.0.1", 0, FaultKind::kSilence}}, true});
  field.Start();
  ASSERT_EQ(field.Port(2), field.Port(3));
  const Bytes write = modbus::TcpFrame(9, 2, {6, 0, 1, 0x12, 0x34});
  EXPECT_EQ(write, Ask(Connect(field.Port(2)), write, write.size()));
  const Descriptor client = Connect(field.Port(2));
  EXPECT_TRUE(IsSilent(client, TcpRead(3)));
  EXPECT_EQ(modbus::TcpFrame(9, 2, {3, 4, 0x07, 0xD0, 0x12, 0x34}), Ask(client, TcpRead(2), 13));
  EXPECT_EQ(modbus::TcpFrame(9, 4, {0x83, 11}), Ask(client, TcpRead(4), 9));
  EXPECT_EQ(1U, field.RequestsReceived(3));
  EXPECT_EQ(2U, field.ConnectionsAccepted(3));
  EXPECT_THROW(field.SetFault(2, FaultKind::kRefuse), std::invalid_argument);
}

TEST(FaultTest, RefusesWhatDoesNotFit) {
  EXPECT_EQ(90, Fault::Parse("pieces:7:90").Parameter(1));
  for (const char* text : {"", "unheard", "pieces:0", "pieces:439", "delay:", "delay:-1", "delay:x",
                           "delay:1:2", "silence:1", "pieces:1:2:3"}) {
    EXPECT_THROW(Fault::Parse(text), std::invalid_argument) << text;
  }
  for (const int start : {0, 19999, 20001, 20300, 21700, 22000, 65535}) {
    EXPECT_FALSE(Fault::OfRegister(start, Transport::kTcp)) << start;
  }
}

/// A bus of devices 2 and 3.
class RtuBusTest : public ::testing::Test {
 protected:
  void Start(int baud_rate) {
    // As one that was killed leaves it.
    EXPECT_EQ(0, symlink("/dev/pts/gone", path_.c_str()));
    field_ = std::make_unique<FieldSimulator>(
        FieldSimulatorConfig{{}, false, {{path_, {{2}, {3}}, baud_rate}}});
    field_->Start();
  }
  Descriptor Open() { return Descriptor(open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)); }

  const test::TempFolder folder_;
  const std::string path_ = folder_.Path("bus");
  std::unique_ptr<FieldSimulator> field_;
  const Bytes reply_ = RtuFrame(2, {3, 4, 0x07, 0xD0, 0x07, 0xD1});  // to a read from 0
};

TEST_F(RtuBusTest, ARegisterChoosesTheFault) {
  Start(0);
  Bytes wrong_crc = reply_;
  wrong_crc.back() ^= 0xFF;
  const struct {
    int start;
    std::size_t noise;
    Bytes frame;
  } rows[] = {
      {20000, 0, reply_},    {20001, 0, RtuFrame(2, {0x83, 2})},  // no fault, and no such register
      {20704, 0, reply_},    {21407, 0, reply_},
      {21503, 3, {}},        {21702, 2, reply_},
      {21800, 0, wrong_crc}, {21900, 0, RtuFrame(3, {3, 4, 0x07, 0xD0, 0x07, 0xD1})}};
  const Descriptor client = Open();
  for (const auto& row : rows) {
    const Bytes received = Ask(client, RtuRead(2, row.start), row.noise + row.frame.size());
    ASSERT_EQ(row.noise + row.frame.size(), received.size()) << row.start;
    EXPECT_TRUE(std::equal(row.frame.rbegin(), row.frame.rend(), received.rbegin())) << row.start;
  }
  // Half a second late: the next answer overtakes it.
  EXPECT_TRUE(Ask(client, RtuRead(2, 21450), 0).empty());
  EXPECT_EQ(RtuFrame(2, {3, 4, 0x07, 0xD1, 0x07, 0xD2}), Ask(client, RtuRead(2, 1), 9));
  EXPECT_EQ(reply_, Receive(client, 9));
}

TEST_F(RtuBusTest, ServesOnlyWholeRequestsOfItsDevices) {
  Start(0);
  const Descriptor client = Open();
  EXPECT_TRUE(IsSilent(client, RtuFrame(0, {6, 0, 1, 0x12, 0x34})));  // yet written by both
  Bytes broken = RtuRead(2);
  broken.back() ^= 1;
  EXPECT_TRUE(IsSilent(client, broken));
  test::SleepMs(100);  // the end of what is no request
  EXPECT_TRUE(IsSilent(client, RtuRead(4)));
  const Bytes request = RtuRead(3);
  EXPECT_TRUE(Ask(client, {request.begin(), request.begin() + 4}, 0).empty());
  EXPECT_EQ(RtuFrame(3, {3, 4, 0x0B, 0xB8, 0x12, 0x34}),
            Ask(client, {request.begin() + 4, request.end()}, 9));
  EXPECT_EQ(RtuFrame(2, {0xC1, 1}), Ask(client, RtuFrame(2, {0x41, 9, 9}), 5));
  const Bytes write_two = RtuFrame(2, modbus::WriteRegistersPdu(0, {5, 6}));
  EXPECT_EQ(RtuFrame(2, {16, 0, 0, 0, 2}), Ask(client, write_two, 8));
  EXPECT_EQ(RtuFrame(2, {3, 4, 0, 5, 0, 6}), Ask(client, RtuRead(2), 9));
  EXPECT_EQ(4U, field_->RequestsReceived(0, 2));
  EXPECT_EQ(2U, field_->RequestsReceived(0, 3));
}

TEST_F(RtuBusTest, AdapterIsPulledOutAndPluggedInAgain) {
  Start(0);
  const Descriptor before = Open();
  field_->SetFault(0, 2, {FaultKind::kDelay, 100});
  EXPECT_TRUE(IsSilent(before, RtuRead(2)));
  field_->Unplug(0);
  EXPECT_TRUE(IsClosed(before));
  EXPECT_FALSE(Open().IsOpen());
  EXPECT_EQ("", field_->TerminalName(0));
  field_->Plug(0);
  EXPECT_EQ(reply_, Ask(Open(), RtuRead(2), 9));
  field_->Stop();
  EXPECT_NE(0, access(path_.c_str(), F_OK));
}

TEST_F(RtuBusTest, AnswersAtThePaceOfTheLine) {
  constexpr int kBaudRate = 2400;
  Start(kBaudRate);
  const Descriptor client = Open();
  for (const Fault& fault : {Fault(), Fault(FaultKind::kPieces, 8, 100)}) {
    field_->SetFault(0, 2, fault);
    const test::Stopwatch time;
    EXPECT_EQ(1U, Ask(client, RtuRead(2), 1).size());
    // The request's 8 characters, 3.5 of silence and the first one; then the rest of the 9.
    EXPECT_GE(time.Ms(), 12.5 * 11000 / kBaudRate - 1);
    EXPECT_EQ(8U, Receive(client, 8).size());
    EXPECT_GE(time.Ms(), 20.5 * 11000 / kBaudRate - 1 + fault.Parameter(1));
  }
}

}  // namespace
}  // namespace tmsc::simulator
