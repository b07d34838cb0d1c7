// The field tool against the daemon and simulated devices on both transports.

#include "daemon_client.h"
#include "health_reader.h"

namespace tmsc::test {
namespace {

const std::string kTcp = "request --channel 3 --timeout 300 --device ";
const std::string kBus = "--channel 1 --baud 115200 --timeout 300 ";

TEST(FieldTool, AsksScansAndNamesWhatIsThere) {
  const TempFolder folder("/dev/shm");  // where the daemon writes the health at once
  const std::string bus = folder.Path("bus");
  ::setenv("RS485_PORT_1", bus.c_str(), 1);
  simulator::FieldSimulatorConfig config;
  config.devices = {{1}, {2}, {5}};
  config.devices[1].fault = simulator::FaultKind::kSilence;
  config.is_same_port = true;
  config.buses = {{bus, {{1}, {3}, {40}}}};
  simulator::FieldSimulator field(config);
  field.Start();
  const std::string port = std::to_string(field.Port(1));
  const DaemonProcess daemon(
      {{"HealthFilePath", folder.Path("health")}, {"TcpDrainTimeout", "20"}});
  const std::string gateway = "127.0.0.1:" + port;
  const std::string site = folder.Path("site.json");
  WriteFile(site,
            R"({"kinds":{"a":[{"name":"P","function":"input","start":2,"type":"u32","scale":0.001,
            "unit":"kW"}],"b":[{"name":"on","function":"coil","start":1},{"name":"V","start":3}]},
            "buses":[{"channel":3,"timeout":300,"devices":[
            {"name":"Inverter 17","address":9,"ip":"127.0.0.1","unit_id":5,"kind":"a","port":)" +
                port + R"(}]},{"channel":1,"baud":115200,"timeout":300,"devices":[
            {"name":"Roof 3","address":3,"kind":"b"}]}]})");
  const std::tuple<std::string, int, const char*> cases[] = {
      {kTcp + "1-3=" + gateway + " --unit 1,2,5 --read-coils 0,3", 5, " unit 5  ok "},
      {kTcp + "2=" + gateway + " --read-coils 0,3 --json", 5,
       R"("cause":"no_answer","cause_code":3)"},
      {kTcp + "4=" + gateway + " --unit 9 --read-coils 0,3 --json", 5,
       R"("cause":"gateway_no_answer","cause_code":25,"cause_detail":11)"},
      {kTcp + "1=127.0.0.1:1 --read-coils 0,3", 5, "  connect refused  "},
      // Health of another channel is not taken for that of this one.
      {"request --channel 2 --device 1=" + gateway + " --read-coils 0,1", 0, "ok"},
      {kTcp + "1=" + gateway + " --write-coils 0,1,1,1", 0, "ok"},
      {kTcp + "1=" + gateway + " --read-coils 0,4", 0, "bits: 0=1 1=1 2=1 3=0\n"},
      {kTcp + "1=" + gateway + " --read-discrete 0,1 --json", 0, R"("response_ms":)"},
      {"request " + kBus + "--device 1 --read-holding 2,1 --json", 0, R"("response_ms":)"},
      {"request --site " + site + " inverter-17", 0, "Inverter 17: 327816.075 kW\n"},
      {"request --site " + site + " all", 0, "Roof 3, on: off\nRoof 3, V: 3003\n"},
      {"request --site " + site + " --register v roof-3", 0, "Roof 3: 3003\n"},
      {"request --site " + site + " roof-4", 2, "did you mean roof-3?"},
      {"scan " + kBus + "--unit 1-4,40 --at-once 5", 0, "no answer: 2, 4\n"},
      {"scan " + kBus + "--unit 5-6", 5, "at once: about 644 ms at most"},
      {"scan --channel 3 --unit 1-6 --gateway " + gateway, 0, "2 of 6 answer, channel 3, 127"},
      {"scan --channel 3 --gateway 127.0.0.1:1", 5, "243 were not asked\nconnect failed: 1-4\n"}};
  for (const auto& [arguments, exit_code, text] : cases) {
    const ShellResult run = RunShell(TAMSEL_BIN_DIR "/tamselctl " + arguments + " --settings " +
                                     daemon.Folder().Path("settings.xml"));
    EXPECT_EQ(run.exit_code, exit_code) << arguments << run.output;
    EXPECT_TRUE(Contains(run.output, text)) << arguments << run.output;
  }
}

TEST(FieldTool, AScanFindsUnitsBehindConnectionsThatHaveEndedAndLeavesHealthAlone) {
  const TempFolder folder("/dev/shm");
  const std::string bus = folder.Path("bus");
  ::setenv("RS485_PORT_1", bus.c_str(), 1);
  simulator::FieldSimulatorConfig config;
  for (int unit = 1; unit <= 9; ++unit) {
    // Each answers on a connection that the one before it has closed.
    const auto fault =
        unit == 9 ? simulator::FaultKind::kSilence : simulator::FaultKind::kCloseAfter;
    config.devices.push_back({unit, "127.0.0.1", 0, fault});
  }
  config.is_same_port = true;
  config.buses = {{bus, {{1}, {3}}}};
  simulator::FieldSimulator field(config);
  field.Start();
  const DaemonProcess daemon({{"HealthFilePath", folder.Path("health")}});
  const std::string gateway = "127.0.0.1:" + std::to_string(field.Port(1));
  const auto run = [&](const std::string& arguments) {
    return RunShell(TAMSEL_BIN_DIR "/tamselctl " + arguments + " --settings " +
                    daemon.Folder().Path("settings.xml"))
        .output;
  };
  EXPECT_TRUE(Contains(run(kTcp + "28-31=" + gateway + " --unit 1-4 --read-holding 0,1"), " ok "));
  const auto health = [&] {
    const HealthReading reading = ReadHealth(folder.Path("health"));
    return std::pair(reading.snapshot->devices, reading.snapshot->channels);
  };
  const auto before = health();
  const std::string of_gateway = run("scan --channel 3 --gateway " + gateway + " --unit 1-9");
  EXPECT_TRUE(Contains(of_gateway, "8 of 9 answer")) << of_gateway;
  EXPECT_TRUE(Contains(of_gateway, "no answer: 9\n")) << of_gateway;
  EXPECT_EQ(field.RequestsReceived(9), 1u) << "on a fresh connection";
  const std::string of_bus = run("scan " + kBus + "--unit 1-3 --json");
  EXPECT_TRUE(Contains(of_bus, R"("answers":2)")) << of_bus;
  const auto after = health();
  const auto is_same = [](const auto& left, const auto& right) {
    return left.checksum == right.checksum;
  };
  EXPECT_EQ(after.first.size(), 4u);
  EXPECT_TRUE(std::equal(before.first.begin(), before.first.end(), after.first.begin(), is_same));
  EXPECT_TRUE(
      std::equal(before.second.begin(), before.second.end(), after.second.begin(), is_same));
}

}  // namespace
}  // namespace tmsc::test
