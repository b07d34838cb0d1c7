#include "board/later_clock.h"

#include <Poco/DateTimeFormatter.h>

#include "daemon/daemon_client.h"
#include "health_reader.h"
#include "modbus/rtu_frame.h"
#include "vlm_rs485.h"

namespace tmsc::test {
namespace {

std::int64_t LaterMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::system_clock::now().time_since_epoch())
             .count() +
         kLaterBy * 1000;
}

std::string StampOf(std::int64_t moment_ms) {
  return Poco::DateTimeFormatter::format(Poco::Timestamp(moment_ms * 1000),
                                         "[%Y-%m-%d %H:%M:%S.%i UTC]");
}

// Files are as old as the clock says, also the log that is to be rotated.
TEST(LaterClock, ServesAndLogsAfterTheYear2038) {
  const TempFolder folder;
  simulator::FieldSimulatorConfig config;
  config.buses.push_back({folder.Path("bus"), {{7}}});
  config.devices.push_back({1, "127.0.0.1", 0, simulator::FaultKind::kNone});
  simulator::FieldSimulator field(config);
  field.Start();
  ::setenv("RS485_PORT_2", folder.Path("bus").c_str(), 1);
  const std::string health = folder.Path("run/health/file");
  DaemonProcess daemon({{"HealthFilePath", health},
                        {"EnableLogBufferedIO", "0"},
                        {"LoggerComLogMaxFileSize", "20KB"}},
                       {true,
                        "mkdir -p $F/card/velmorahome/Log $F/check; "
                        "head -c 20400 /dev/zero > $F/card/velmorahome/Log/LoggerCom.log; "
                        "touch $F/check/tmsc; mkdir " +
                            folder.Path("run") + "; find $F " + folder.Path() +
                            " -exec touch -d 2061-01-01 {} +; "
                            "export LD_PRELOAD=" LATER_CLOCK_PATH});
  TcpIpRequest tcp = MakeTcpIpRequest(1);
  ASSERT_FALSE(
      AddTcpIpDevice(tcp, 1, "127.0.0.1", field.Port(1), 1000, modbus::TcpFrame(1, 1, ReadPdu())));
  Rs485Request serial = MakeRs485Request(2, VLM_RS485_BAUD_115200);
  ASSERT_FALSE(
      AddRs485Device(serial, {7, VLM_RS485_8N1, 1000, 0, 0, 0}, modbus::RtuFrame(7, ReadPdu())));
  const std::int64_t begin_ms = LaterMs();
  ExpectAnswered(Exchange(daemon, tcp), 1);
  EXPECT_EQ(DeviceAnswer(Exchange(daemon, serial), 7)->frame,
            modbus::RtuFrame(7, AnswerPdu(7000 + kRegister)));
  const std::int64_t end_ms = LaterMs();

  const std::string lines = daemon.Console();
  const std::string stamp = lines.substr(lines.rfind("\nLoggerCom.log [") + 15, 29);
  EXPECT_GE(stamp, StampOf(begin_ms));
  EXPECT_LE(stamp, StampOf(end_ms));
  EXPECT_TRUE(WaitFor(5000, [&] { return Contains(ReadFile(daemon.LogPath()), stamp); }));
  EXPECT_EQ(ReadFile(daemon.LogPath() + ".1").size(), 20400U);
  HealthReading reading;
  ASSERT_TRUE(WaitFor(5000, [&] {
    reading = ReadHealth(health);
    return reading.snapshot && reading.snapshot->devices.size() == 2;
  })) << reading.error;
  for (const auto& device : reading.snapshot->devices) {
    EXPECT_GE(device.last_answer_ms, begin_ms);
    EXPECT_LE(device.last_answer_ms, end_ms);
    EXPECT_EQ(device.newest_hour, end_ms / 3600000);
  }
  ExpectStops(daemon);
  EXPECT_FALSE(Contains(daemon.Console(), "[E]")) << daemon.Console();
}

}  // namespace
}  // namespace tmsc::test
