#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "request_builder.h"
#include "support/fake_daemon.h"
#include "support/shell.h"

namespace tmsc {
namespace {

using test::ShellResult;

ShellResult RunTamselctl(const std::string& arguments) {
  return test::RunShell(std::string(TAMSELCTL_PATH) + " " + arguments);
}

ResponseReceiveData Status(int status) {
  return FakeDaemon::MakeResponse(kRequestDataTypeTCPIP, status);
}

std::vector<byte> Frame(const SendData& entry) {
  return {entry.send_data + 2, entry.send_data + 2 + entry.send_data[0]};
}

ResponseReceiveData Answer(int address, int status, const std::vector<byte>& frame) {
  ResponseReceiveData response = Status(0);
  FakeDaemon::SetAnswer(response, address, static_cast<byte>(status), frame);
  return response;
}

// Answers each request with the next response, and closes without one when none is left.
class AnsweringDaemon {
 public:
  explicit AnsweringDaemon(std::vector<ResponseReceiveData> responses)
      : responses_(std::move(responses)), daemon_([this](int connection) { Serve(connection); }) {}

  std::string Arguments(const std::string& arguments) const {
    return "request --socket " + daemon_.Path() + " " + arguments;
  }
  template <typename Request>
  Request LastRequest() {
    const std::lock_guard lock(mutex_);
    Request request{};
    EXPECT_EQ(last_request_.size(), sizeof(Request));
    std::copy_n(last_request_.begin(), std::min(last_request_.size(), sizeof(Request)),
                reinterpret_cast<byte*>(&request));
    return request;
  }

 private:
  void Serve(int connection) {
    const std::vector<byte> bytes = FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    const std::lock_guard lock(mutex_);
    last_request_ = bytes;
    if (next_ < responses_.size()) {
      FakeDaemon::Send(connection, &responses_[next_++], sizeof(ResponseReceiveData));
    }
  }

  std::mutex mutex_;
  std::vector<ResponseReceiveData> responses_;
  std::size_t next_ = 0;
  std::vector<byte> last_request_;
  FakeDaemon daemon_;  // last, so that its thread ends before what it uses
};

const std::string kRead = "--channel 2 --device 5=192.0.2.7:502 --read-holding 0x10,2 ";
const std::vector<byte> kReadFrame = {0, 1, 0, 0, 0, 6, 5, 3, 0, 0x10, 0, 2};
const std::vector<byte> kGoodAnswer = {0, 1, 0, 0, 0, 7, 5, 3, 4, 0x12, 0x34, 0xFF, 0xFF};

const std::string kRtu = "--channel 2 --device 5 --baud 19200 ";
const std::string kReadRtu = kRtu + "--read-holding 0x10,2 ";
const std::vector<byte> kGoodRtuAnswer = {5, 3, 4, 0x12, 0x34, 0xFF, 0xFF, 0xFA, 0xF5};

std::vector<byte> Changed(std::vector<byte> bytes, std::size_t offset, byte value) {
  bytes[offset] = value;
  return bytes;
}

struct ResponseCase {
  std::string arguments;
  std::vector<ResponseReceiveData> responses;
  int exit_code;
  std::string text;
};

void ExpectExitStatusAndText(const std::vector<ResponseCase>& cases) {
  for (const ResponseCase& given : cases) {
    AnsweringDaemon daemon(given.responses);
    const ShellResult run = RunTamselctl(daemon.Arguments(given.arguments));
    EXPECT_EQ(run.exit_code, given.exit_code) << given.arguments << run.output;
    EXPECT_NE(run.output.find(given.text), std::string::npos) << given.text << '\n' << run.output;
  }
}

TEST(Tamselctl, ExitStatusAndTextFollowTheResponse) {
  ExpectExitStatusAndText({
      {kRead, {Answer(5, 0, kGoodAnswer)}, 0, "registers: 4660 65535\n"},
      {kRead, {Answer(5, 0, kGoodAnswer)}, 0, "192.0.2.7:502  ok      000100000007050304"},
      {kRead + "--format json",
       {Answer(5, 0, kGoodAnswer)},
       0,
       R"("devices":[{"device":5,"place":"192.0.2.7:502","ok":true,"status":"ok",)"
       R"("answer":"0001000000070503041234FFFF","registers":[4660,65535]}]})"},
      {kRead, {Answer(5, 0, {0, 1, 0, 0, 0, 3, 5, 0x83, 2})}, 5, "exception 2: illegal data addr"},
      {kRead, {Answer(5, 0, Changed(kGoodAnswer, 1, 2))}, 5, "misfit: wrong transaction"},
      {kRead, {Answer(5, 0, Changed(kGoodAnswer, 6, 6))}, 5, "misfit: wrong unit"},
      {kRead, {Answer(5, 0, Changed(kGoodAnswer, 7, 4))}, 5, "misfit: wrong function"},
      {kRead, {Answer(5, 0, Changed(kGoodAnswer, 8, 2))}, 5, "misfit: not the registers asked"},
      {kRead, {Answer(5, 0, {0, 1, 0, 0, 0, 7, 5})}, 5, "misfit: no Modbus/TCP frame"},
      {kRead, {Answer(5, 20, {})}, 5, "connect failed + send or receive failed"},
      {kRead, {Answer(6, 0, kGoodAnswer)}, 5, "no answer"},
      {"--channel 2 --device 5=192.0.2.7:502 --frame 11", {Answer(5, 0, {0xAB})}, 0, "ok      AB"},
      {kRead, {Status(10)}, 4, "channel 2: the channel is busy"},
      {kRead + "--busy-wait 5000", {Status(10), Answer(5, 0, kGoodAnswer)}, 0, "4660 65535"},
      {kRead + "--busy-wait 60", {Status(10), Status(10), Status(10), Status(10)}, 4, "busy"},
      {kRead, {Status(4)}, 6, "did not receive the whole payload"},
      {kRead, {}, 6, "closed the connection without an answer"},
  });
}

TEST(Tamselctl, ExitStatusAndTextFollowTheRs485Response) {
  const std::string write = kRtu + "--write-registers 0x100,1,2 ";
  ExpectExitStatusAndText({
      {kReadRtu, {Answer(5, 0, kGoodRtuAnswer)}, 0, "registers: 4660 65535\n"},
      {kReadRtu + "--format json",
       {Answer(5, 0, kGoodRtuAnswer)},
       0,
       R"({"device":5,"place":"19200 8N1","ok":true,"status":"answered",)"},
      {write, {Answer(5, 0, {5, 16, 1, 0, 0, 2, 0x41, 0xB0})}, 0, "answered"},
      {write, {Answer(5, 0, {5, 16, 1, 0, 0, 1, 0x01, 0xB1})}, 5, "not the registers written"},
      {kReadRtu, {Answer(5, 0, {5, 0x83, 2, 0x81, 0x30})}, 5, "exception 2: illegal data addr"},
      {kReadRtu, {Answer(5, 0, Changed(kGoodRtuAnswer, 3, 0))}, 5, "wrong CRC"},
      {kReadRtu, {Answer(5, 0, {5, 3})}, 5, "wrong CRC"},
      {kReadRtu, {Answer(5, 0, {5, 0x7F, 0x43})}, 5, "misfit: no Modbus RTU frame"},
      {kReadRtu,
       {Answer(5, 0, {6, 3, 4, 0x12, 0x34, 0xFF, 0xFF, 0xC9, 0xF5})},
       5,
       "answer of device 6"},
      {kReadRtu,
       {Answer(5, 0, {5, 4, 4, 0x12, 0x34, 0xFF, 0xFF, 0xFB, 0x42})},
       5,
       "misfit: wrong function"},
      {kReadRtu, {Answer(5, 0, {5, 3, 2, 0x12, 0x34, 0x44, 0xF3})}, 5, "not the registers asked"},
      {kReadRtu, {Answer(5, 1, {})}, 5, "no answer"},
      {kReadRtu, {Answer(5, 0, {})}, 5, "no answer"},
      {kReadRtu, {Answer(5, 2, {})}, 5, "line error"},
      {kReadRtu, {Answer(5, 3, {})}, 5, "answer too long"},
      {kReadRtu, {Answer(5, 4, {})}, 5, "port gone"},
      {kReadRtu, {Answer(5, 5, {})}, 5, "unknown status 5"},
      {kRtu + "--frame 11", {Answer(5, 0, {0xAB, 1, 2})}, 0, "answered  AB0102"},
      {kRtu + "--frame 11 --crc", {Answer(5, 0, {0xAB, 1, 2})}, 5, "wrong CRC"},
      {kRtu + "--frame 11 --crc", {Answer(5, 0, {0xAB, 0xFE, 0xFF})}, 0, "answered  AB"},
      {kRtu + "--frame 0011 --broadcast", {Answer(5, 0, {})}, 0, "sent"},
      {kRtu + "--frame 0011 --broadcast", {Answer(5, 4, {})}, 5, "port gone"},
      {kReadRtu, {Status(10)}, 4, "the channel is busy"},
      {kReadRtu, {Status(8)}, 6, "the RS485 port could not be opened"},
  });
}

TEST(Tamselctl, SendsTheFrameAsked) {
  const std::string device = "--channel 3 --device 9=192.0.2.1:502 --device 5=192.0.2.7:503 ";
  const struct {
    std::string arguments;
    std::vector<byte> frame;  // of device 5, the second in the request
  } cases[] = {
      {"--read-holding 0x10,2", Changed(kReadFrame, 1, 2)},
      {"--read-input 16,2 --unit 0xFF", {0, 2, 0, 0, 0, 6, 0xFF, 4, 0, 16, 0, 2}},
      {"--write-registers 256,65535,0x102",
       {0, 2, 0, 0, 0, 11, 5, 16, 1, 0, 0, 2, 4, 0xFF, 0xFF, 1, 2}},
      {"--frame 9:FF --frame 5:'0a 0B'", {0x0A, 0x0B}},
      {"--frame 0c", {0x0C}},
  };
  for (const auto& given : cases) {
    AnsweringDaemon daemon({Status(4)});
    EXPECT_EQ(
        RunTamselctl(daemon.Arguments(device + "--timeout 0x100 " + given.arguments)).exit_code, 6);
    const auto request = daemon.LastRequest<TcpIpRequest>();
    const SendData& entry = request.payload.send_data[1];
    EXPECT_EQ(entry.address, 5);
    EXPECT_EQ(Frame(entry), given.frame) << given.arguments;
    EXPECT_STREQ(request.payload.port_params[1].ip_address, "192.0.2.7");
    EXPECT_EQ(request.payload.port_params[1].port + 0, 503);
    EXPECT_EQ(request.payload.port_params[1].timeout + 0, 256);
    EXPECT_EQ(request.header.channel_index + 0, 3);
  }
}

TEST(Tamselctl, SendsTheRs485FrameAndParametersAsked) {
  const struct {
    std::string arguments;
    byte baud_code;
    SetPortParams parameters;
    std::vector<byte> frame;
  } cases[] = {
      {"--baud 1200 --read-holding 0x10,2",
       0,
       {5, 0, 1000, 0, 0, 0},
       {5, 3, 0, 16, 0, 2, 0xC4, 0x4A}},
      {"--baud 921600 --line 7O2 --silence 20 --timeout 300 --wait 255 --unit 255 "
       "--read-input 16,2",
       10,
       {5, 11, 300, 0, 20, 255},
       {0xFF, 4, 0, 16, 0, 2, 0x65, 0xD0}},
      {"--baud 19200 --line 8E1 --delimiter 0x0D,2 --write-registers 256,65535,0x102",
       4,
       {5, 1, 1000, 13, 2, 0},
       {5, 16, 1, 0, 0, 2, 4, 0xFF, 0xFF, 1, 2, 0x6B, 0x7A}},
      {"--baud 9600 --delimiter 10 --broadcast --write-registers 256,7",
       3,
       {5, 0, 1000, 10, 0, 0},
       {0, 16, 1, 0, 0, 1, 2, 0, 7, 0xFA, 0xC2}},
      {"--baud 9600 --frame 112233", 3, {5, 0, 1000, 0, 0, 0}, {0x11, 0x22, 0x33}},
      {"--baud 9600 --crc --frame 112233",
       3,
       {5, 0, 1000, 0, 0, 0},
       {0x11, 0x22, 0x33, 0x79, 0x70}},
  };
  for (const auto& given : cases) {
    AnsweringDaemon daemon({Status(4)});
    EXPECT_EQ(RunTamselctl(daemon.Arguments("--channel 3 --device 5 " + given.arguments)).exit_code,
              6);
    const auto request = daemon.LastRequest<Rs485Request>();
    EXPECT_EQ(Frame(request.payload.send_data[0]), given.frame) << given.arguments;
    EXPECT_EQ(request.payload.send_data[0].address, 5);
    EXPECT_EQ(std::memcmp(request.payload.port_params, &given.parameters, sizeof(SetPortParams)), 0)
        << given.arguments;
    EXPECT_EQ(request.payload.baud_rate, given.baud_code);
    EXPECT_EQ(request.payload.channel + 0, 3);
    EXPECT_EQ(request.header.type + 0, kRequestDataTypeRS485);
  }
}

TEST(Tamselctl, WritesAsManyRegistersAsAnRs485FrameHolds) {
  std::string values = "0";
  for (int count = 1; count <= 27; ++count) {
    values += ",1";
  }
  AnsweringDaemon daemon({Status(4)});
  const std::string arguments = daemon.Arguments(kRtu + "--write-registers " + values);
  EXPECT_EQ(RunTamselctl(arguments).exit_code, 6);
  EXPECT_EQ(Frame(daemon.LastRequest<Rs485Request>().payload.send_data[0]).size(), 63U);
  const ShellResult run = RunTamselctl(arguments + ",1");
  EXPECT_EQ(run.exit_code, 2);
  EXPECT_NE(run.output.find("1 to 27 registers"), std::string::npos) << run.output;
}

TEST(Tamselctl, WrongUsageIsRefusedBeforeAnythingIsSent) {
  const std::string one = "--channel 1 --device 1=192.0.2.1:502 ";
  const struct {
    std::string arguments;
    std::string text;
  } cases[] = {
      {"--channel 4 --device 1=192.0.2.1:502 --frame 01", "4 is not a number of 1 to 3"},
      {"--channel 1 --device 1=192.0.2.1 --frame 01", "1=192.0.2.1 is not ADDRESS=IP:PORT"},
      {"--channel 1 --device 32=192.0.2.1:1 --frame 01", "with an address of 1 to 31"},
      {one + "--device 1=192.0.2.2:502 --frame 01", "in the request already"},
      {one + "--device 2=host:502 --frame 01", "\"host\" is not an IPv4 address"},
      {one, "Exactly 1 option"},
      {one + "--frame 01 --read-input 0,1", "2 were given"},
      {one + "--frame 012", "012 is not HEX"},
      {one + "--frame 2:01", "no device 2"},
      {one + "--device 2=192.0.2.2:502 --frame 1:01", "no frame for device 2"},
      {one + "--frame 01 --unit 3", "sent as they are"},
      {one + "--read-holding 0,126", "1 to 125 registers"},
      {one + "--read-holding 65535,2", "none above 65535"},
      {one + "--read-holding 1,-1", "is not START,COUNT"},
      {one + "--write-registers 1,65536", "is not START,VALUE"},
      {one + "--device 2 --frame 01", "do not mix"},
      {one + "--device 2 --baud 9600 --frame 01", "do not mix"},
      {one + "--baud 9600 --frame 01", "have no speed"},
      {one + "--line 8E1 --frame 01", "--line requires --baud"},
      {"--channel 1 --device 1 --frame 01", "needs --baud"},
      {"--channel 1 --device 32 --baud 9600 --frame 01", "32 is not an address of 1 to 31"},
      {kRtu + "--device 5 --frame 01", "in the request already"},
      {"--channel 1 --device 1 --baud 9601 --frame 01", "9601 is not one of 1200, 2400, 4800"},
      {kRtu + "--line 9N1 --frame 01", "9N1 is not one of 8N1, 8E1"},
      {kRtu + "--wait 256 --frame 01", "256 is not a number of 0 to 255"},
      {kRtu + "--delimiter 0 --frame 01", "0 is not BYTE[,AFTER]"},
      {kRtu + "--delimiter 1,256 --frame 01", "1,256 is not BYTE[,AFTER]"},
      {kRtu + "--delimiter 1 --silence 1 --frame 01", "excludes"},
      {kRtu + "--frame " + std::string(126, '1') + " --crc", "a frame of 65 bytes is longer"},
      {kRtu + "--frame 0001", "needs it"},
      {kRtu + "--frame 0101 --broadcast", "is not 0"},
      {kRtu + "--unit 0 --read-input 0,1", "needs it"},
      {kRtu + "--device 6 --frame 00 --broadcast", "one --device is enough"},
      {kRtu + "--read-input 0,1 --broadcast", "nothing can be read"},
      {kRtu + "--read-input 0,1 --crc", "only --frame"},
  };
  for (const auto& given : cases) {
    const ShellResult run = RunTamselctl("request --socket /nonexistent/socket " + given.arguments);
    EXPECT_EQ(run.exit_code, 2) << given.arguments;
    EXPECT_NE(run.output.find(given.text), std::string::npos) << run.output;
  }
  EXPECT_EQ(RunTamselctl("").exit_code, 2);
  EXPECT_EQ(RunTamselctl("request --help").exit_code, 0);
}

TEST(Tamselctl, DaemonThatIsAbsentOrSilentEndsWithThree) {
  EXPECT_EQ(RunTamselctl("request --socket /nonexistent/socket " + kRead).exit_code, 3);
  FakeDaemon silent([](int connection) {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    FakeDaemon::ReadOnce(connection, 1);
  });
  const Deadline latest(std::chrono::seconds(3));
  const ShellResult run =
      RunTamselctl("request --socket " + silent.Path() + " --deadline 100 " + kRead);
  EXPECT_EQ(run.exit_code, 3);
  EXPECT_NE(run.output.find("did not answer in time"), std::string::npos) << run.output;
  EXPECT_FALSE(latest.HasPassed());
}

TEST(Tamselctl, AnswersThatCannotBePrintedAreNoSuccess) {
  AnsweringDaemon daemon({Answer(5, 0, kGoodAnswer)});
  EXPECT_EQ(RunTamselctl(daemon.Arguments(kRead + " > /dev/full")).exit_code, 1);
}

}  // namespace
}  // namespace tmsc
