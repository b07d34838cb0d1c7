#include "field_simulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>

#include "utility/descriptor.h"

namespace tmsc::simulator {
namespace {

using Clock = std::chrono::steady_clock;

constexpr std::size_t kEnough = 100000;

/// Connects; the descriptor is not open when the device refuses.
Descriptor Connect(std::uint16_t port, const char* ip_address = "127.0.0.1") {
  Descriptor descriptor(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_in endpoint{};
  endpoint.sin_family = AF_INET;
  endpoint.sin_port = htons(port);
  inet_pton(AF_INET, ip_address, &endpoint.sin_addr);
  if (connect(descriptor.Get(), reinterpret_cast<sockaddr*>(&endpoint), sizeof(endpoint)) != 0) {
    descriptor.Reset();
  }
  return descriptor;
}

Bytes Request(int unit, int start_register, int function = 3, int last = 2) {
  const auto low = [](int value) { return static_cast<std::uint8_t>(value & 0xFF); };
  return {0,
          9,
          0,
          0,
          0,
          6,
          low(unit),
          low(function),
          low(start_register >> 8),
          low(start_register),
          low(last >> 8),
          low(last)};
}

/// What came back, and when.
struct Received {
  Bytes bytes;
  int first_ms = 0;
  int last_ms = 0;
  bool closed = false;
};

/// Sends the request, if any, then reads until the device closes, `enough` bytes are there or
/// nothing has come for `silence_ms`.
Received Exchange(const Descriptor& descriptor, const Bytes& request, int silence_ms,
                  std::size_t enough = kEnough) {
  const auto start = Clock::now();
  Received received;
  if (!request.empty()) {
    EXPECT_EQ(static_cast<ssize_t>(request.size()),
              write(descriptor.Get(), request.data(), request.size()));
  }
  pollfd readable = {descriptor.Get(), POLLIN, 0};
  std::array<std::uint8_t, 4096> buffer{};
  while (received.bytes.size() < enough && poll(&readable, 1, silence_ms) == 1) {
    const ssize_t size = read(descriptor.Get(), buffer.data(), buffer.size());
    if (size <= 0) {
      received.closed = true;
      break;
    }
    received.last_ms = static_cast<int>(
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    received.first_ms = received.bytes.empty() ? received.last_ms : received.first_ms;
    received.bytes.insert(received.bytes.end(), buffer.begin(), buffer.begin() + size);
  }
  return received;
}

bool WaitFor(const std::function<bool()>& condition) {
  for (int pass = 0; pass < 200 && !condition(); ++pass) {
    poll(nullptr, 0, 10);
  }
  return condition();
}

/// Registers 0 and 1 of device 2.
const Bytes kReply = {0, 9, 0, 0, 0, 7, 2, 3, 4, 0x07, 0xD0, 0x07, 0xD1};

Bytes Altered(std::size_t size, int length_field) {
  Bytes frame = kReply;
  for (std::size_t index = frame.size(); index < size; ++index) {
    frame.push_back(static_cast<std::uint8_t>(index));
  }
  frame.resize(size);
  frame[4] = static_cast<std::uint8_t>(length_field >> 8);
  frame[5] = static_cast<std::uint8_t>(length_field);
  return frame;
}

Bytes Twice(const Bytes& frame) {
  Bytes both = frame;
  both.insert(both.end(), frame.begin(), frame.end());
  return both;
}

TEST(FieldSimulatorTest, FaultsBySettingAndByRegister) {
  struct Case {
    Fault fault;
    int start_register;
    Bytes expected;
    int first_ms;
    int last_ms;
    bool closed;
  };
  const Case cases[] = {
      {FaultKind::kNone, 20000, kReply, 0, 0, false},
      {{FaultKind::kDelay, 80}, 20108, kReply, 80, 80, false},
      {FaultKind::kSilence, 20200, {}, 0, 0, false},
      {FaultKind::kCloseAfter, 20400, kReply, 0, 0, true},
      {FaultKind::kCloseBefore, 20500, {}, 0, 0, true},
      {FaultKind::kCloseMidFrame, 20600, Bytes(kReply.begin(), kReply.begin() + 6), 0, 0, true},
      {{FaultKind::kPieces, 5}, 20705, kReply, 0, 40, false},
      {{FaultKind::kSplitHeader, 60}, 20806, kReply, 0, 60, false},
      {FaultKind::kTooLong, 20900, Altered(439, 433), 0, 0, false},
      {FaultKind::kLongest, 21000, Altered(438, 432), 0, 0, false},
      {FaultKind::kWrongLength, 21100, Altered(13, 17), 0, 0, false},
      {FaultKind::kZeroLength, 21200, Altered(6, 0), 0, 0, false},
      {{FaultKind::kLate, 90}, 21409, Twice(kReply), 0, 90, false},
      {FaultKind::kFixed, 21600, FixedFrame(), 0, 0, false},
  };
  FieldSimulator simulator({{{1, "127.0.0.1", 0, {}}, {2, "127.0.0.1", 0, {}}}, false});
  simulator.Start();
  for (const Case& each : cases) {
    for (const bool by_register : {false, true}) {
      SCOPED_TRACE(std::to_string(each.start_register) + (by_register ? " register" : " set"));
      simulator.SetFault(2, by_register ? Fault() : each.fault);
      const Descriptor descriptor = Connect(simulator.Port(2));
      const Bytes request = Request(2, by_register ? each.start_register : 0);
      const Received received = Exchange(descriptor, request, 2000, each.expected.size());
      EXPECT_EQ(each.expected, received.bytes);
      const Received rest = Exchange(descriptor, {}, each.closed ? 2000 : 30);
      EXPECT_EQ(Bytes(), rest.bytes);
      EXPECT_EQ(each.closed, rest.closed);
      EXPECT_GE(received.first_ms, each.first_ms);
      EXPECT_GE(received.last_ms, each.last_ms);
    }
  }
  EXPECT_EQ(2 * std::size(cases), simulator.RequestsReceived(2));
  EXPECT_EQ(2 * std::size(cases), simulator.ConnectionsAccepted(2));
  EXPECT_EQ(0U, simulator.RequestsReceived(1));
}

TEST(FieldSimulatorTest, EndlessStopsWithItsPeerAndHoldsUpNobody) {
  FieldSimulator simulator({{{1, "127.0.0.1", 0, FaultKind::kEndless}, {2}}, false});
  simulator.Start();
  {
    const Descriptor endless = Connect(simulator.Port(1));
    EXPECT_GE(Exchange(endless, Request(1, 0), 1000).bytes.size(), kEnough);
    const Descriptor other = Connect(simulator.Port(2));
    EXPECT_EQ(kReply, Exchange(other, Request(2, 0), 1000, kReply.size()).bytes);
  }
  EXPECT_TRUE(WaitFor([&] { return simulator.OpenConnections() == 0; }));
}

TEST(FieldSimulatorTest, RefusesAndListensAgainOnTheSamePort) {
  FieldSimulator simulator({{{2, "127.0.0.1", 0, FaultKind::kRefuse}}, false});
  simulator.Start();
  const std::uint16_t port = simulator.Port(2);
  EXPECT_FALSE(Connect(port).IsOpen());
  simulator.SetFault(2, FaultKind::kNone);
  const Descriptor descriptor = Connect(port);
  EXPECT_EQ(kReply, Exchange(descriptor, Request(2, 0), 1000, kReply.size()).bytes);
  simulator.SetFault(2, {FaultKind::kDelay, 40});
  EXPECT_EQ(Bytes(), Exchange(descriptor, Request(2, 0), 0).bytes);
  EXPECT_TRUE(WaitFor([&] { return simulator.RequestsReceived(2) == 2; }));
  simulator.SetFault(2, FaultKind::kRefuse);
  EXPECT_TRUE(Exchange(descriptor, {}, 1000).closed);
  EXPECT_FALSE(Connect(port).IsOpen());
  // The answer that was due on the closed connection does no harm.
  poll(nullptr, 0, 60);
  simulator.SetFault(2, FaultKind::kNone);
  EXPECT_EQ(kReply, Exchange(Connect(port), Request(2, 0), 1000, kReply.size()).bytes);
}

TEST(FieldSimulatorTest, GatewayChoosesByUnitAndWritesStay) {
  FieldSimulator simulator({{{2}, {3, "127.0.0.1", 0, FaultKind::kSilence}}, true});
  simulator.Start();
  ASSERT_EQ(simulator.Port(2), simulator.Port(3));
  const Bytes write = Request(2, 1, 6, 0x1234);
  EXPECT_EQ(write, Exchange(Connect(simulator.Port(2)), write, 1000, write.size()).bytes);
  const Descriptor descriptor = Connect(simulator.Port(2));
  EXPECT_EQ(Bytes(), Exchange(descriptor, Request(3, 0), 50).bytes);
  const Bytes written = {0, 9, 0, 0, 0, 7, 2, 3, 4, 0x07, 0xD0, 0x12, 0x34};
  EXPECT_EQ(written, Exchange(descriptor, Request(2, 0), 1000, written.size()).bytes);
  const Bytes no_such_unit = {0, 9, 0, 0, 0, 3, 4, 0x83, 11};
  EXPECT_EQ(no_such_unit, Exchange(descriptor, Request(4, 0), 1000, no_such_unit.size()).bytes);
  EXPECT_EQ(1U, simulator.RequestsReceived(3));
  EXPECT_EQ(2U, simulator.ConnectionsAccepted(3));
  EXPECT_THROW(simulator.SetFault(2, FaultKind::kRefuse), std::invalid_argument);
}

TEST(FieldSimulatorTest, FixedFramePortAnswersAnyBytesAndAppliesTheFault) {
  // An address of its own, as the port cannot be chosen.
  const char* ip_address = "127.83.77.1";
  FieldSimulator simulator({{{1, ip_address, kFixedFramePort, FaultKind::kCloseAfter}}, false});
  simulator.Start();
  const Received received = Exchange(Connect(kFixedFramePort, ip_address), {'x'}, 1000);
  EXPECT_EQ(FixedFrame(), received.bytes);
  EXPECT_TRUE(received.closed);
  FieldSimulator second({{{1, ip_address, kFixedFramePort, {}}}, false});
  EXPECT_THROW(second.Start(), std::system_error);
}

TEST(FaultTest, RefusesWhatDoesNotFit) {
  const Fault pieces = Fault::Parse("pieces:7:90");
  EXPECT_EQ(FaultKind::kPieces, pieces.Kind());
  EXPECT_EQ(7, pieces.Parameter(0));
  EXPECT_EQ(90, pieces.Parameter(1));
  for (const char* text : {"", "unheard", "pieces:0", "pieces:439", "delay:", "delay:-1", "delay:x",
                           "delay:1:2", "silence:1", "pieces:1:2:3"}) {
    EXPECT_THROW(Fault::Parse(text), std::invalid_argument) << text;
  }
  for (const int start_register : {0, 19999, 20001, 20300, 21700, 23000, 65535}) {
    EXPECT_FALSE(Fault::OfRegister(start_register, Transport::kTcp)) << start_register;
  }
  for (const int start_register : {20300, 20400, 21300, 21600, 22000, 23000}) {
    EXPECT_FALSE(Fault::OfRegister(start_register, Transport::kRtu)) << start_register;
  }
}

/// A bus of devices 2 and 3 at a path of its own.
class RtuBusTest : public ::testing::Test {
 protected:
  explicit RtuBusTest(int baud_rate = 0)
      : simulator_({{}, false, {{path_, {{2, {}}, {3, {}}}, baud_rate}}}) {
    unlink(path_.c_str());
    // As one that was killed leaves it.
    EXPECT_EQ(0, symlink("/dev/pts/gone", path_.c_str()));
    simulator_.Start();
  }

  Descriptor Open() { return Descriptor(open(path_.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC)); }

  static Bytes WithCrc(Bytes frame) {
    modbus::AppendCrc(frame);
    return frame;
  }

  /// Function, register and last word as a request to the device.
  static Bytes RtuRequest(int address, int start_register, int function = 3, int last = 2) {
    const Bytes request = Request(address, start_register, function, last);
    return WithCrc(Bytes(request.begin() + 6, request.end()));
  }

  const std::string path_ = ::testing::TempDir() + "rtu_bus_" + std::to_string(getpid());
  FieldSimulator simulator_;
  /// Registers 0 and 1 of device 2.
  const Bytes reply_ = {2, 3, 4, 0x07, 0xD0, 0x07, 0xD1, 0x0B, 0xD2};
};

TEST_F(RtuBusTest, FaultsBySettingAndByRegister) {
  Bytes wrong_crc = reply_;
  wrong_crc.back() ^= 0xFF;
  struct Case {
    Fault fault;
    int start_register;
    std::size_t size;
    /// Where `part` begins in what comes.
    std::size_t offset;
    Bytes part;
    int first_ms;
    int last_ms;
  };
  const Case cases[] = {
      {FaultKind::kNone, 20000, 9, 0, reply_, 0, 0},
      {{FaultKind::kDelay, 80}, 20108, 9, 0, reply_, 80, 80},
      {FaultKind::kSilence, 20200, 0, 0, {}, 0, 0},
      {{FaultKind::kPieces, 4}, 20704, 9, 0, reply_, 0, 40},
      {FaultKind::kTooLong, 20900, 500, 0, reply_, 0, 0},
      {{FaultKind::kLate, 60}, 21406, 9, 0, reply_, 60, 60},
      {{FaultKind::kGarbage, 5}, 21505, 5, 0, {}, 0, 0},
      {{FaultKind::kNoise, 7}, 21707, 16, 7, reply_, 0, 0},
      {FaultKind::kWrongCrc, 21800, 9, 0, wrong_crc, 0, 0},
      {FaultKind::kOtherAddress, 21900, 9, 0, WithCrc({3, 3, 4, 7, 0xD0, 7, 0xD1}), 0, 0},
  };
  const Descriptor descriptor = Open();
  for (const Case& each : cases) {
    for (const bool by_register : {false, true}) {
      SCOPED_TRACE(std::to_string(each.start_register) + (by_register ? " register" : " set"));
      simulator_.SetFault(0, 2, by_register ? Fault() : each.fault);
      const Bytes request = RtuRequest(2, by_register ? each.start_register : 0);
      const Received received = Exchange(descriptor, request, 2000, each.size);
      ASSERT_EQ(each.size, received.bytes.size());
      const auto begin = received.bytes.begin() + static_cast<std::ptrdiff_t>(each.offset);
      EXPECT_EQ(each.part, Bytes(begin, begin + static_cast<std::ptrdiff_t>(each.part.size())));
      EXPECT_EQ(Bytes(), Exchange(descriptor, {}, 30).bytes);
      EXPECT_GE(received.first_ms, each.first_ms);
      EXPECT_GE(received.last_ms, each.last_ms);
    }
  }
  EXPECT_EQ(2 * std::size(cases), simulator_.RequestsReceived(0, 2));
  EXPECT_EQ(0U, simulator_.RequestsReceived(0, 3));
  EXPECT_THROW(simulator_.SetFault(0, 2, FaultKind::kRefuse), std::invalid_argument);
  EXPECT_THROW(simulator_.SetFault(0, 4, FaultKind::kNone), std::out_of_range);
}

TEST_F(RtuBusTest, LateAnswerComesInTheNextDevicesTime) {
  simulator_.SetFault(0, 2, {FaultKind::kLate, 100});
  const Descriptor descriptor = Open();
  EXPECT_EQ(Bytes(), Exchange(descriptor, RtuRequest(2, 0), 0).bytes);
  const Bytes next = WithCrc({3, 3, 4, 0x0B, 0xB8, 0x0B, 0xB9});
  Bytes both = next;
  both.insert(both.end(), reply_.begin(), reply_.end());
  EXPECT_EQ(both, Exchange(descriptor, RtuRequest(3, 0), 2000, both.size()).bytes);
}

TEST_F(RtuBusTest, ServesOnlyWholeRequestsOfItsDevices) {
  const Descriptor descriptor = Open();
  // Written by all, answered by none.
  EXPECT_EQ(Bytes(), Exchange(descriptor, RtuRequest(0, 1, 6, 0x1234), 30).bytes);
  Bytes broken = RtuRequest(2, 0);
  broken.back() ^= 1;
  EXPECT_EQ(Bytes(), Exchange(descriptor, broken, 200).bytes);
  EXPECT_EQ(Bytes(), Exchange(descriptor, RtuRequest(4, 0), 30).bytes);
  const Bytes request = RtuRequest(3, 0);
  const Bytes half(request.begin(), request.begin() + 4);
  EXPECT_EQ(Bytes(), Exchange(descriptor, half, 0).bytes);
  const Bytes written = WithCrc({3, 3, 4, 0x0B, 0xB8, 0x12, 0x34});
  EXPECT_EQ(written,
            Exchange(descriptor, Bytes(request.begin() + 4, request.end()), 2000, 9).bytes);
  const Bytes no_such_function = WithCrc({2, 0xC1, 1});
  EXPECT_EQ(no_such_function, Exchange(descriptor, WithCrc({2, 0x41, 9, 9}), 2000, 5).bytes);
  const Bytes write_two = WithCrc({2, 16, 0, 0, 0, 2, 4, 0, 5, 0, 6});
  EXPECT_EQ(WithCrc({2, 16, 0, 0, 0, 2}), Exchange(descriptor, write_two, 2000, 8).bytes);
  const Bytes two = WithCrc({2, 3, 4, 0, 5, 0, 6});
  EXPECT_EQ(two, Exchange(descriptor, RtuRequest(2, 0), 2000, two.size()).bytes);
  EXPECT_EQ(4U, simulator_.RequestsReceived(0, 2));
  EXPECT_EQ(2U, simulator_.RequestsReceived(0, 3));
}

TEST_F(RtuBusTest, AdapterIsPulledOutAndPluggedInAgain) {
  const Descriptor before = Open();
  simulator_.SetFault(0, 2, {FaultKind::kDelay, 40});
  EXPECT_EQ(Bytes(), Exchange(before, RtuRequest(2, 0), 0).bytes);
  simulator_.Unplug(0);
  EXPECT_TRUE(Exchange(before, {}, 1000).closed);
  EXPECT_FALSE(Open().IsOpen());
  EXPECT_EQ("", simulator_.TerminalName(0));
  simulator_.Plug(0);
  const Descriptor after = Open();
  EXPECT_EQ(reply_, Exchange(after, RtuRequest(2, 0), 2000, reply_.size()).bytes);
  simulator_.Stop();
  EXPECT_NE(0, access(path_.c_str(), F_OK));
  EXPECT_FALSE(Open().IsOpen());
}

class SlowRtuBusTest : public RtuBusTest {
 protected:
  SlowRtuBusTest() : RtuBusTest(2400) {}
};

TEST_F(SlowRtuBusTest, AnswersAtThePaceOfTheLine) {
  const Received received = Exchange(Open(), RtuRequest(2, 0), 2000, reply_.size());
  EXPECT_EQ(reply_, received.bytes);
  // The request's 8 characters, 3.5 of silence and the first one; then the rest of the 9.
  EXPECT_GE(received.first_ms, 12.5 * 11000 / 2400 - 1);
  EXPECT_GE(received.last_ms, 20.5 * 11000 / 2400 - 1);
}

}  // namespace
}  // namespace tmsc::simulator
