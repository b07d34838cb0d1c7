#include <gtest/gtest.h>

#include <cstdio>

#include "daemon_client.h"
#include "support/shell.h"

namespace tmsc::test {
namespace {

/// Another party's program, until the object goes. It writes one line when it is ready.
class ForeignProgram {
 public:
  explicit ForeignProgram(const std::string& command) {
    // timeout(1) ends a server that never gets as far as reading its standard input.
    const std::string redirected =
        "timeout 60 " + command + " > " + folder_.Path("line") + " 2> " + folder_.Path("errors");
    pipe_ = ::popen(redirected.c_str(), "we");  // NOLINT(*)
  }
  ~ForeignProgram() { ::pclose(pipe_); }
  ForeignProgram(const ForeignProgram&) = delete;
  ForeignProgram& operator=(const ForeignProgram&) = delete;

  /// Its line, with the line end; empty when it does not start.
  std::string Line() const {
    WaitFor(15000, [&] {
      return ReadFile(folder_.Path("line")).find('\n') != std::string::npos ||
             Errors().find("Error") != std::string::npos;
    });
    return ReadFile(folder_.Path("line"));
  }
  std::string Errors() const { return ReadFile(folder_.Path("errors")); }

 private:
  TempFolder folder_;
  FILE* pipe_ = nullptr;
};

std::string PythonScript(const std::string& name) {
  return "/usr/bin/python3 " + (std::filesystem::path(__FILE__).parent_path() / name).string();
}

/// Reads and writes, with that command line, the registers of a server that holds `count` of them:
/// register r holds step * r + first.
void ExpectRegisters(const std::string& tamselctl, int count, int first, int step) {
  const auto value = [&](int r) { return std::to_string(step * r + first); };
  std::string registers;
  for (int r = 0; r < count; ++r) {
    registers += (r > 0 ? "," : "") + value(r);
  }
  ShellResult run = RunShell(tamselctl + " --read-holding 0," + std::to_string(count));
  EXPECT_EQ(run.exit_code, 0) << run.output;
  EXPECT_TRUE(Contains(run.output, "\"registers\":[" + registers + "]")) << run.output;
  run = RunShell(tamselctl + " --write-registers 20,1,65535");
  EXPECT_EQ(run.exit_code, 0) << run.output;
  run = RunShell(tamselctl + " --read-holding 19,4");
  EXPECT_TRUE(Contains(run.output, "[" + value(19) + ",1,65535," + value(22) + "]")) << run.output;
  run = RunShell(tamselctl + " --read-holding " + std::to_string(count - 1) + ",2");
  EXPECT_NE(run.exit_code, 0) << "a register that is not there: " << run.output;
}

std::string TamselctlRequest(const DaemonProcess& daemon) {
  return std::string(TAMSEL_BIN_DIR) + "/tamselctl request --format json --socket " +
         daemon.SocketPath();
}

TEST(Interoperation, RegistersOfAForeignTcpServerComeThroughUnchanged) {
  const ForeignProgram server(PythonScript("modbus_server.py"));
  const int port = std::atoi(server.Line().c_str());
  ASSERT_NE(port, 0) << "no Modbus server; python3-pymodbus is needed:\n" << server.Errors();
  const DaemonProcess daemon;
  ExpectRegisters(
      TamselctlRequest(daemon) + " --channel 1 --device 1=127.0.0.1:" + std::to_string(port), 100,
      40000, 7);
}

TEST(Interoperation, RegistersOfAForeignRtuServerComeThroughUnchanged) {
  const TempFolder folder;
  const std::string near_end = folder.Path("near");
  const std::string far_end = folder.Path("far");
  const ForeignProgram line("sh -c 'socat pty,raw,echo=0,link=" + near_end +
                            " pty,raw,echo=0,link=" + far_end + " & read end; kill $!'");
  ASSERT_TRUE(WaitFor(5000, [&] { return std::filesystem::exists(far_end); })) << line.Errors();
  const ForeignProgram server(PythonScript("modbus_rtu_server.py") + " " + far_end);
  ASSERT_EQ(server.Line(), "ready\n") << server.Errors();
  ::setenv("RS485_PORT_3", near_end.c_str(), 1);
  const DaemonProcess daemon;
  ExpectRegisters(TamselctlRequest(daemon) + " --channel 3 --device 7 --baud 19200 --silence 20",
                  50, 50000, 11);
}

}  // namespace
}  // namespace tmsc::test
