#include "daemon_client.h"

namespace tmsc::test {
namespace {

const std::string kScript = TAMSEL_TESTS_DIR "/daemon/modbus_server.py";

/// Reads and writes registers of a server of another party, whose one line says what device it is.
void ExpectRegisters(const std::string& server, const DaemonProcess& daemon) {
  const std::string path = daemon.Folder().Path("line");
  // timeout(1) ends a server that never gets as far as reading its standard input.
  const std::shared_ptr<FILE> input(::popen(("timeout 60 " + server + " > " + path).c_str(), "we"),
                                    ::pclose);  // NOLINT(*)
  ASSERT_TRUE(WaitFor(20000, [&] { return Contains(ReadFile(path), "\n"); }))
      << "no Modbus server; python3-pymodbus is needed";
  const std::string device = ReadFile(path);
  const auto expect = [&](const std::string& operation, int exit_code, const std::string& text) {
    const ShellResult run =
        RunShell(TAMSEL_BIN_DIR "/tamselctl request --format json --channel 3 --timeout 5000 " +
                 operation + " --socket " + daemon.SocketPath() + " --device " + device);
    EXPECT_EQ(run.exit_code, exit_code) << run.output;
    EXPECT_TRUE(Contains(run.output, text)) << run.output;
  };
  std::string registers = "40000";
  for (int value = 40007; value < 40700; value += 7) {
    registers += "," + std::to_string(value);
  }
  expect("--read-holding 0,100", 0, "\"registers\":[" + registers + "]");
  expect("--write-registers 20,1,65535", 0, "");
  expect("--read-holding 19,4", 0, "[40133,1,65535,40154]");
  expect("--read-holding 99,2", 5, "exception 2");
}

TEST(Interoperation, RegistersOfAForeignTcpServerComeThroughUnchanged) {
  ExpectRegisters("/usr/bin/python3 " + kScript, DaemonProcess());
}

TEST(Interoperation, RegistersOfAForeignRtuServerComeThroughUnchanged) {
  const TempFolder folder;
  const std::string near_end = folder.Path("near");
  const std::string far_end = folder.Path("far");
  ::setenv("RS485_PORT_3", near_end.c_str(), 1);
  ExpectRegisters("sh -c 'socat pty,raw,echo=0,link=" + near_end +
                      " pty,raw,echo=0,link=" + far_end + " & until test -e " + far_end +
                      "; do sleep 0.1; done; /usr/bin/python3 " + kScript + " " + far_end +
                      "; kill $!'",
                  DaemonProcess());
}

}  // namespace
}  // namespace tmsc::test
