#include "field_simulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include "modbus/rtu_frame.h"
#include "socket_manager/tcp_socket.h"
#include "support/files.h"
#include "support/wait.h"

namespace tmsc::simulator {
namespace {

using modbus::ReadRegistersPdu;
using modbus::RtuFrame;
using modbus::TcpFrame;

constexpr int kLimitMs = 5000;
const char* const kLocal = "127.0.0.1";

/// What comes until that many bytes are there, the other side closes or nothing comes in time.
Bytes Receive(int client, std::size_t size, int limit_ms = kLimitMs) {
  Bytes bytes;
  pollfd readable = {client, POLLIN, 0};
  std::uint8_t byte = 0;
  while (bytes.size() < size && poll(&readable, 1, limit_ms) == 1 && read(client, &byte, 1) == 1) {
    bytes.push_back(byte);
  }
  return bytes;
}

Bytes Ask(int client, const Bytes& request, std::size_t size, int limit_ms = kLimitMs) {
  EXPECT_EQ(static_cast<ssize_t>(request.size()), write(client, request.data(), request.size()));
  return Receive(client, size, limit_ms);
}

bool IsSilent(int client, const Bytes& request) {
  return Ask(client, request, 1, 250).empty();
}

bool IsClosed(int client) {
  pollfd closed = {client, POLLRDHUP, 0};
  return poll(&closed, 1, kLimitMs) == 1;
}

Bytes TcpRead(int unit) {
  return TcpFrame(9, unit, ReadRegistersPdu(3, 0, 2));
}

TEST(FieldSimulatorTest, RefusesAndListensAgainOnTheSamePort) {
  FieldSimulator field({{{2, kLocal, 0, FaultKind::kRefuse}}});
  field.Start();
  TCPSocket client(kLocal, field.Port(2));
  for (int pass = 0; pass < 2; ++pass) {
    EXPECT_EQ(ECONNREFUSED, client.Connect(kLimitMs));
    client.Close();
    field.SetFault(2, {FaultKind::kDelay, 100});
    ASSERT_EQ(0, client.Connect(kLimitMs));
    EXPECT_EQ(13U, Ask(client.GetDescriptor(), TcpRead(2), 13).size());
    EXPECT_TRUE(Ask(client.GetDescriptor(), TcpRead(2), 0).empty());
    field.SetFault(2, FaultKind::kRefuse);
    EXPECT_TRUE(IsClosed(client.GetDescriptor()));
    client.Close();
    test::SleepMs(150);  // the answer that was due on the closed connection does no harm
  }
}

TEST(FieldSimulatorTest, AGatewayChoosesByUnitAndWritesStay) {
  FieldSimulator field({{{2}, {3, kLocal, 0, FaultKind::kSilence}}, true});
  field.Start();
  TCPSocket socket(kLocal, field.Port(3));
  ASSERT_EQ(0, socket.Connect(kLimitMs));
  const int client = socket.GetDescriptor();
  const Bytes write = TcpFrame(9, 2, {6, 0, 1, 0x12, 0x34});
  EXPECT_EQ(write, Ask(client, write, write.size()));
  EXPECT_TRUE(IsSilent(client, TcpRead(3)));
  EXPECT_EQ(TcpFrame(9, 2, {3, 4, 0x07, 0xD0, 0x12, 0x34}), Ask(client, TcpRead(2), 13));
  EXPECT_EQ(TcpFrame(9, 4, {0x83, 11}), Ask(client, TcpRead(4), 9));
  EXPECT_EQ(1U, field.RequestsReceived(3));
  EXPECT_THROW(field.SetFault(2, FaultKind::kRefuse), std::invalid_argument);
}

TEST(FaultTest, RefusesWhatDoesNotFit) {
  EXPECT_EQ(90, Fault::Parse("pieces:7:90").Parameter(1));
  for (const char* text : {"", "unheard", "pieces:0", "pieces:439", "delay:", "delay:-1", "delay:x",
                           "delay:1:2", "silence:1", "pieces:1:2:3"}) {
    EXPECT_THROW(Fault::Parse(text), std::invalid_argument) << text;
  }
  for (const int start : {0, 19999, 20201, 20300, 21700, 22000, 65535}) {
    EXPECT_FALSE(Fault::OfRegister(start, Transport::kTcp)) << start;
  }
}

/// A bus of devices 2 and 3.
class RtuBusTest : public ::testing::Test {
 protected:
  int Start(int baud_rate = 0) {
    // As one that was killed leaves it.
    EXPECT_EQ(0, symlink("/dev/pts/gone", path_.c_str()));
    field_ = std::make_unique<FieldSimulator>(
        FieldSimulatorConfig{{}, false, {{path_, {{2}, {3}}, baud_rate}}});
    field_->Start();
    return Open();
  }
  int Open() {
    line_.Reset(open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    return line_.Get();
  }
  static Bytes Read(int address, int start = 0) {
    return RtuFrame(address, ReadRegistersPdu(3, start, 2));
  }

  const test::TempFolder folder_;
  const std::string path_ = folder_.Path("bus");
  std::unique_ptr<FieldSimulator> field_;
  Descriptor line_;
  const Bytes reply_ = RtuFrame(2, {3, 4, 0x07, 0xD0, 0x07, 0xD1});  // to a read from 0
};

TEST_F(RtuBusTest, ARegisterChoosesTheFault) {
  const int client = Start();
  EXPECT_EQ(3U, Ask(client, Read(2, 21503), 3).size());
  EXPECT_EQ(2U, Ask(client, Read(2, 21702), 2).size());
  EXPECT_EQ(reply_, Receive(client, 9));
  EXPECT_NE(reply_, Ask(client, Read(2, 21800), 9));
  EXPECT_EQ(RtuFrame(3, {3, 4, 0x07, 0xD0, 0x07, 0xD1}), Ask(client, Read(2, 21900), 9));
  // Half a second late: the next answer overtakes it.
  EXPECT_TRUE(Ask(client, Read(2, 21450), 0).empty());
  EXPECT_EQ(RtuFrame(2, {3, 4, 0x07, 0xD1, 0x07, 0xD2}), Ask(client, Read(2, 1), 9));
  EXPECT_EQ(reply_, Receive(client, 9));
}

TEST_F(RtuBusTest, ServesOnlyWholeRequestsOfItsDevices) {
  const int client = Start();
  EXPECT_TRUE(IsSilent(client, RtuFrame(0, {6, 0, 1, 0x12, 0x34})));  // yet both write
  Bytes request = Read(2);
  request.back() ^= 1;
  EXPECT_TRUE(IsSilent(client, request));
  EXPECT_TRUE(IsSilent(client, Read(4)));
  request = Read(3);
  // In two parts; again when this machine pauses for longer between them than the bus waits.
  EXPECT_TRUE(test::WaitFor(kLimitMs, [&] {
    Ask(client, {request.begin(), request.begin() + 4}, 0);
    return Ask(client, {request.begin() + 4, request.end()}, 9, 500) ==
           RtuFrame(3, {3, 4, 0x0B, 0xB8, 0x12, 0x34});
  }));
  EXPECT_EQ(RtuFrame(2, {0xC1, 1}), Ask(client, RtuFrame(2, {0x41, 9, 9}), 5));
  request = RtuFrame(2, modbus::WriteRegistersPdu(0, {5, 6}));
  EXPECT_EQ(RtuFrame(2, {16, 0, 0, 0, 2}), Ask(client, request, 8));
  EXPECT_EQ(RtuFrame(2, {3, 4, 0, 5, 0, 6}), Ask(client, Read(2), 9));
  EXPECT_EQ(2U, field_->RequestsReceived(0, 3));
}

TEST_F(RtuBusTest, AdapterIsPulledOutAndPluggedInAgain) {
  const int client = Start();
  field_->Unplug(0);
  EXPECT_TRUE(IsClosed(client));
  EXPECT_EQ("", field_->TerminalName(0));
  field_->Plug(0);
  EXPECT_EQ(reply_, Ask(Open(), Read(2), 9));
  field_->Stop();
  EXPECT_EQ(-1, Open());
}

TEST_F(RtuBusTest, AnswersAtThePaceOfTheLine) {
  const int client = Start(2400);
  for (const Fault& fault : {Fault(), Fault(FaultKind::kPieces, 8, 100)}) {
    field_->SetFault(0, 2, fault);
    const test::Stopwatch time;
    EXPECT_EQ(reply_, Ask(client, Read(2), 9));
    // The request's 8 characters, 3.5 of silence and the answer's 9.
    EXPECT_GE(time.Ms(), 20.5 * 11000 / 2400 - 1 + fault.Parameter(1));
  }
}

}  // namespace
}  // namespace tmsc::simulator
