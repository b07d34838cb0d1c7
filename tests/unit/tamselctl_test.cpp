#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <mutex>

#include "request_builder.h"
#include "support/fake_daemon.h"

namespace tmsc {
namespace {

struct ProcessResult {
  int exit_code = -1;
  std::string output;  // both streams
};

ProcessResult RunTamselctl(const std::string& arguments) {
  ProcessResult run;
  const std::string command = std::string(TAMSELCTL_PATH) + " " + arguments + " 2>&1";
  // The arguments are this test's own, so the shell does what it should with them.
  FILE* pipe = ::popen(command.c_str(), "re");  // NOLINT(bugprone-command-processor)
  if (pipe == nullptr) {
    return run;
  }
  char buffer[4096];
  for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    run.output.append(buffer, count);
  }
  const int status = ::pclose(pipe);
  run.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

ResponseReceiveData Status(int status) {
  return FakeDaemon::MakeResponse(kRequestDataTypeTCPIP, status);
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
  TcpIpRequest LastRequest() {
    const std::lock_guard lock(mutex_);
    return last_request_;
  }

 private:
  void Serve(int connection) {
    const std::vector<byte> bytes = FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    const std::lock_guard lock(mutex_);
    std::copy(bytes.begin(), bytes.end(), reinterpret_cast<byte*>(&last_request_));
    if (next_ < responses_.size()) {
      FakeDaemon::Send(connection, &responses_[next_++], sizeof(ResponseReceiveData));
    }
  }

  std::mutex mutex_;
  std::vector<ResponseReceiveData> responses_;
  std::size_t next_ = 0;
  TcpIpRequest last_request_{};
  FakeDaemon daemon_;  // last, so that its thread ends before what it uses
};

const std::string kRead = "--channel 2 --device 5=192.0.2.7:502 --read-holding 0x10,2 ";
const std::vector<byte> kReadFrame = {0, 1, 0, 0, 0, 6, 5, 3, 0, 0x10, 0, 2};
const std::vector<byte> kGoodAnswer = {0, 1, 0, 0, 0, 7, 5, 3, 4, 0x12, 0x34, 0xFF, 0xFF};

std::vector<byte> Changed(std::vector<byte> bytes, std::size_t offset, byte value) {
  bytes[offset] = value;
  return bytes;
}

TEST(Tamselctl, ExitStatusAndTextFollowTheResponse) {
  const struct {
    std::string arguments;
    std::vector<ResponseReceiveData> responses;
    int exit_code;
    std::string text;
  } cases[] = {
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
  };
  for (const auto& given : cases) {
    AnsweringDaemon daemon(given.responses);
    const ProcessResult run = RunTamselctl(daemon.Arguments(given.arguments));
    EXPECT_EQ(run.exit_code, given.exit_code) << given.arguments << run.output;
    EXPECT_NE(run.output.find(given.text), std::string::npos) << given.text << '\n' << run.output;
  }
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
    const TcpIpRequest request = daemon.LastRequest();
    const SendData& entry = request.payload.send_data[1];
    EXPECT_EQ(entry.address, 5);
    EXPECT_EQ(std::vector<byte>(entry.send_data + 2, entry.send_data + 2 + entry.send_data[0]),
              given.frame)
        << given.arguments;
    EXPECT_STREQ(request.payload.port_params[1].ip_address, "192.0.2.7");
    EXPECT_EQ(request.payload.port_params[1].port + 0, 503);
    EXPECT_EQ(request.payload.port_params[1].timeout + 0, 256);
    EXPECT_EQ(request.header.channel_index + 0, 3);
  }
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
  };
  for (const auto& given : cases) {
    const ProcessResult run =
        RunTamselctl("request --socket /nonexistent/socket " + given.arguments);
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
  const ProcessResult run =
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
