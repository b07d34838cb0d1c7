#include "field_simulator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <list>

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

/// What comes for a request, if any: until that many bytes are there, the other side closes or
/// nothing comes for so long.
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

Bytes RtuRead(int address, int start = 0) {
  return RtuFrame(address, modbus::ReadRegistersPdu(3, start, 2));
}

TEST(FieldSimulatorTest, RefusesAndListensAgainOnTheSamePort) {
  FieldSimulator field({{{2}}, false});
  field.Start();
  std::list<TCPSocket> clients;
  const int port = field.Port(2);
  for (const bool is_refusing : {true, false, true, false}) {
    field.SetFault(2, is_refusing ? FaultKind::kRefuse : FaultKind::kDelay);
    TCPSocket& client = clients.emplace_back("127.0.0.1", port);
    ASSERT_EQ(is_refusing ? ECONNREFUSED : 0, client.Connect(kLimitMs));
    if (!is_refusing) {
      EXPECT_EQ(13U, Ask(client.GetDescriptor(), TcpFrame(9, 2, kRead), 13).size());
      Ask(client.GetDescriptor(), TcpFrame(9, 2, kRead),
          0);  // the answer is due while the device refuses
    }
    EXPECT_EQ(is_refusing ? 0U : 1U, field.OpenConnections());
  }
}

TEST(FieldSimulatorTest, AGatewayChoosesByUnitAndWritesStay) {
  FieldSimulator field({{{2}, {3}}, true});
  field.Start();
  field.SetFault(3, FaultKind::kSilence);
  TCPSocket socket("127.0.0.1", field.Port(3));
  ASSERT_EQ(0, socket.Connect(kLimitMs));
  const int client = socket.GetDescriptor();
  EXPECT_EQ(12U, Ask(client, TcpFrame(9, 2, {6, 0, 1, 0x12, 0x34}), 12).size());
  EXPECT_EQ(Bytes(), Ask(client, TcpFrame(9, 3, kRead), 1, 250));
  EXPECT_EQ(TcpFrame(9, 2, {3, 4, 0x07, 0xD0, 0x12, 0x34}), Ask(client, TcpFrame(9, 2, kRead), 13));
  EXPECT_EQ(TcpFrame(9, 4, {0x83, 11}), Ask(client, TcpFrame(9, 4, kRead), 9));
  EXPECT_THROW(field.SetFault(2, FaultKind::kRefuse), std::invalid_argument);
}

TEST(FaultTest, RefusesWhatDoesNotFit) {
  EXPECT_EQ(90, Fault::Parse("pieces:7:90").Parameter(1));
  EXPECT_EQ(500, Fault::OfRegister(20150, Transport::kTcp).value().Parameter(0));
  for (const char* text : {"", "unheard", "pieces:0", "pieces:439", "delay:", "delay:-1", "delay:x",
                           "delay:1:2", "silence:1", "pieces:1:2:3"}) {
    EXPECT_THROW(Fault::Parse(text), std::invalid_argument) << text;
  }
  for (const int start : {0, 19999, 20201, 20300, 21700, 22000, 65535}) {
    EXPECT_FALSE(Fault::OfRegister(start, Transport::kTcp)) << start;
  }
}

/// A bus of devices 2 and 3 that answers at once, and one at 2400 baud.
class RtuBusTest : public ::testing::Test {
 protected:
  RtuBusTest() {
    EXPECT_EQ(0, symlink("/gone", folder_.Path("0").c_str()));  // as one that was killed leaves it
    field_.Start();
  }
  int Open(const std::string& bus = "0") {
    line_.Reset(open(folder_.Path(bus).c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC));
    return line_.Get();
  }

  const test::TempFolder folder_;
  FieldSimulator field_{
      {{}, false, {{folder_.Path("0"), {{2}, {3}}}, {folder_.Path("1"), {{2}}, 2400}}}};
  Descriptor line_;
  const Bytes reply_ = RtuFrame(2, {3, 4, 0x07, 0xD0, 0x07, 0xD1});  // to a read from 0
};

TEST_F(RtuBusTest, ARegisterChoosesTheFault) {
  const int client = Open();
  EXPECT_EQ(2U, Ask(client, RtuRead(2, 21702), 2).size());
  EXPECT_EQ(reply_, Ask(client, {}, 9));
  EXPECT_NE(reply_, Ask(client, RtuRead(2, 21800), 9));
  EXPECT_EQ(RtuFrame(3, {3, 4, 0x07, 0xD0, 0x07, 0xD1}), Ask(client, RtuRead(2, 21900), 9));
  // Half a second late: the next answer overtakes a stray one and waits for any other.
  const Bytes next = RtuFrame(2, {3, 4, 0x07, 0xD1, 0x07, 0xD2});
  for (const bool is_stray : {true, false}) {
    Ask(client, RtuRead(2, is_stray ? 21450 : 20150), 0);
    EXPECT_EQ(is_stray ? next : reply_, Ask(client, RtuRead(2, 1), 9));
    EXPECT_EQ(is_stray ? reply_ : next, Ask(client, {}, 9));
  }
}

TEST_F(RtuBusTest, ServesOnlyWholeRequestsOfItsDevices) {
  const int client = Open();
  const Bytes write_all = RtuFrame(0, {6, 0, 1, 0x12, 0x34});
  const Bytes wrong_crc = {2, 3, 0, 0, 0, 2, 9, 9};
  for (const Bytes& unanswered : {write_all, RtuFrame(0, {3}), wrong_crc, RtuRead(4)}) {
    EXPECT_EQ(Bytes(), Ask(client, unanswered, 1, 250));
  }
  const Bytes request = RtuRead(3);
  // In two parts; again when this machine pauses for longer between them than the bus waits.
  EXPECT_TRUE(test::WaitFor(kLimitMs, [&] {
    Ask(client, {request.begin(), request.begin() + 4}, 0);
    return Ask(client, {request.begin() + 4, request.end()}, 9, 500) ==
           RtuFrame(3, {3, 4, 0x0B, 0xB8, 0x12, 0x34});
  }));
  EXPECT_EQ(RtuFrame(2, {0xC1, 1}), Ask(client, RtuFrame(2, {0x41, 9, 9}), 5));
  Ask(client, RtuFrame(2, modbus::WriteRegistersPdu(0, {5, 6})), 8);
  EXPECT_EQ(RtuFrame(2, {3, 4, 0, 5, 0, 6}), Ask(client, RtuRead(2), 9));
  EXPECT_EQ(3U, field_.RequestsReceived(0, 3));
}

TEST_F(RtuBusTest, AdapterIsPulledOutAndPluggedInAgain) {
  field_.Unplug(0);
  EXPECT_FALSE(std::filesystem::is_symlink(folder_.Path("0")));
  field_.Plug(0);
  EXPECT_EQ(reply_, Ask(Open(), RtuRead(2), 9));
  field_.Stop();
  EXPECT_FALSE(std::filesystem::is_symlink(folder_.Path("0")));
}

TEST_F(RtuBusTest, AnswersAtThePaceOfTheLine) {
  for (const Fault& fault : {Fault(), Fault(FaultKind::kPieces, 8, 100)}) {
    field_.SetFault(1, 2, fault);
    const test::Stopwatch time;
    EXPECT_EQ(reply_, Ask(Open("1"), RtuRead(2), 9));
    // The request's 8 characters, 3.5 of silence and the answer's 9.
    EXPECT_GE(time.Ms(), 20.5 * 11000 / 2400 - 1 + fault.Parameter(1));
  }
}

}  // namespace
}  // namespace tmsc::simulator
