#include <gtest/gtest.h>

#include <cstdio>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

/// Output of a shell command, both streams.
std::string RunTool(const std::string& command, int* status) {
  std::string output;
  // The words are this test's own, so the shell does what it should with them.
  FILE* const pipe = ::popen(("timeout 20 " + command + " 2>&1").c_str(), "re");  // NOLINT(*)
  char buffer[4096];
  for (std::size_t count = 0; (count = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0;) {
    output.append(buffer, count);
  }
  *status = ::pclose(pipe);
  return output;
}

/// Another party's Modbus/TCP server, until the object goes.
class ModbusServer {
 public:
  ModbusServer() {
    // timeout(1) ends a server that never gets as far as reading its standard input.
    const std::string script =
        (std::filesystem::path(__FILE__).parent_path() / "modbus_server.py").string();
    const std::string command = "timeout 60 /usr/bin/python3 " + script + " > " +
                                folder_.Path("port") + " 2> " + folder_.Path("errors");
    pipe_ = ::popen(command.c_str(), "we");  // NOLINT(*)
  }
  ~ModbusServer() { ::pclose(pipe_); }
  ModbusServer(const ModbusServer&) = delete;
  ModbusServer& operator=(const ModbusServer&) = delete;

  /// 0 when it does not start.
  int Port() const {
    int port = 0;
    WaitFor(15000, [&] {
      const std::string text = ReadFile(folder_.Path("port"));
      if (!text.empty() && text.back() == '\n') {
        port = std::stoi(text);
      }
      return port != 0 || ReadFile(folder_.Path("errors")).find("Error") != std::string::npos;
    });
    return port;
  }
  std::string Errors() const { return ReadFile(folder_.Path("errors")); }

 private:
  TempFolder folder_;
  FILE* pipe_ = nullptr;
};

TEST(Interoperation, RegistersOfAForeignServerComeThroughUnchanged) {
  const ModbusServer server;
  const int port = server.Port();
  ASSERT_NE(port, 0) << "no Modbus server; python3-pymodbus is needed:\n" << server.Errors();
  const DaemonProcess daemon;

  TcpIpRequest request = MakeTcpIpRequest(2);
  ASSERT_FALSE(AddTcpIpDevice(request, 1, "127.0.0.1", port, 2000, ReadFrame(1, 10)));
  const auto answer = DeviceAnswer(Exchange(daemon, request), 1);
  EXPECT_EQ(answer->frame, AnswerFrame(1, 40070));

  const std::string tamselctl =
      std::string(TAMSEL_BIN_DIR) + "/tamselctl request --socket " + daemon.SocketPath() +
      " --channel 1 --format json --device 1=127.0.0.1:" + std::to_string(port) + " ";
  int status = -1;
  std::string output = RunTool(tamselctl + "--read-holding 0,100", &status);
  EXPECT_EQ(status, 0) << output;
  std::string registers = "\"registers\":[";
  for (int i = 0; i < 100; ++i) {
    registers += std::to_string(7 * i + 40000) + (i < 99 ? "," : "]");
  }
  EXPECT_NE(output.find(registers), std::string::npos) << output;

  output = RunTool(tamselctl + "--write-registers 20,1,65535", &status);
  EXPECT_EQ(status, 0) << output;
  output = RunTool(tamselctl + "--read-holding 19,4", &status);
  EXPECT_NE(output.find("\"registers\":[40133,1,65535,40154]"), std::string::npos) << output;
  output = RunTool(tamselctl + "--read-holding 99,2", &status);
  EXPECT_NE(status, 0) << "a register that is not there: " << output;
}

}  // namespace
}  // namespace tmsc::test
