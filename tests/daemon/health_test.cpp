// The health of the devices, from the exchange to the file.

#include <atomic>
#include <future>

#include "daemon_client.h"
#include "health_reader.h"
#include "modbus/rtu_frame.h"
#include "support/health_file.h"
#include "vlm_rs485.h"

namespace tmsc::test {
namespace {

using simulator::FaultKind;

/// A daemon that keeps health in memory.
class Health : public ::testing::Test {
 protected:
  Settings Changes() const { return {{"HealthFilePath", path_}}; }

  HealthSnapshot Read() const {
    HealthReading reading = ReadHealth(path_);
    EXPECT_EQ(reading.error, "");
    return reading.snapshot.value_or(HealthSnapshot{});
  }

  /// The device's record; all zero when there is none.
  tamsel_health_device Device(int channel, int transport, int address) const {
    for (const auto& device : Read().devices) {
      if (device.channel == channel && device.transport == transport && device.address == address) {
        return device;
      }
    }
    return {};
  }

  const TempFolder folder_{"/dev/shm"};
  const std::string path_ = folder_.Path("health");
};

struct FaultCase {
  simulator::Fault fault;
  int cause;
  int detail;
};

TEST_F(Health, EachTcpFaultIsKnownByItsCause) {
  const FaultCase cases[] = {{FaultKind::kNone, TAMSEL_CAUSE_ANSWERED, 0},
                             {FaultKind::kSilence, TAMSEL_CAUSE_NO_ANSWER, 0},
                             {FaultKind::kRefuse, TAMSEL_CAUSE_CONNECT_REFUSED, 0},
                             {FaultKind::kCloseBefore, TAMSEL_CAUSE_CLOSED, 0},
                             {FaultKind::kCloseMidFrame, TAMSEL_CAUSE_CUT_SHORT, 0},
                             {FaultKind::kWrongLength, TAMSEL_CAUSE_CUT_SHORT, 11},
                             {FaultKind::kTooLong, TAMSEL_CAUSE_TOO_LONG, 439},
                             {{FaultKind::kSplitHeader, 50}, TAMSEL_CAUSE_ANSWERED, 0}};
  Devices devices(12);
  int address = 0;
  for (const FaultCase& row : cases) {
    devices.SetFault(++address, row.fault);
  }
  DaemonProcess daemon(Changes());
  TcpIpRequest request = devices.Request(3, 500);
  request.payload.port_params[8].port = 0;                                     // address 9
  request.payload.port_params[9].ip_address[0] = 'x';                          // 10
  request.payload.send_data[10].send_data[0] = 127;                            // 11
  std::strcpy(request.payload.port_params[11].ip_address, "255.255.255.255");  // 12
  std::strcpy(request.payload.port_params[0].ip_address, "127.0.0.1    ");     // 1
  constexpr std::uint32_t kRounds = 3;
  for (std::uint32_t round = 0; round < kRounds; ++round) {
    Exchange(daemon, request);
  }
  address = 0;
  for (const FaultCase& row : cases) {
    const tamsel_health_device device = Device(3, TAMSEL_HEALTH_TCPIP, ++address);
    EXPECT_EQ(device.ends[row.cause], kRounds) << address << " " << int{device.last_cause};
    EXPECT_EQ(device.exchanges, kRounds) << address;
    EXPECT_EQ(device.last_cause, row.cause) << address;
    EXPECT_TRUE(row.detail == 0 || device.last_detail == row.detail) << device.last_detail;
    EXPECT_EQ(device.failing_since_ms == 0, row.cause == TAMSEL_CAUSE_ANSWERED) << address;
    EXPECT_EQ(device.port, devices.Port(address));
    EXPECT_STREQ(device.ip_address, "127.0.0.1");
    int of_hours = 0;  // the hour may change meanwhile
    for (const auto& hour : device.hours) {
      of_hours += hour.answered + hour.failed;
    }
    EXPECT_EQ(of_hours, kRounds);
  }
  const tamsel_health_device slow = Device(3, TAMSEL_HEALTH_TCPIP, address);
  EXPECT_GE(slow.response_least_us, 50000u);
  EXPECT_LT(slow.response_most_us, 450000u);
  for (const auto& [refused, cause] : {std::pair(9, TAMSEL_CAUSE_BAD_PORT),
                                       {10, TAMSEL_CAUSE_BAD_IP_ADDRESS},
                                       {11, TAMSEL_CAUSE_BAD_FRAME_LENGTH}}) {
    EXPECT_EQ(Device(3, TAMSEL_HEALTH_TCPIP, refused).ends[cause], kRounds) << refused;
  }
  const auto unreachable = Device(3, TAMSEL_HEALTH_TCPIP, 12);
  EXPECT_EQ(
      unreachable.ends[TAMSEL_CAUSE_UNREACHABLE] + unreachable.ends[TAMSEL_CAUSE_CONNECT_FAILED],
      kRounds);
  devices.SetFault(2, FaultKind::kNone);
  Exchange(daemon, request);
  EXPECT_EQ(Device(3, TAMSEL_HEALTH_TCPIP, 2).failing_since_ms, 0);
  ExpectStops(daemon);
  EXPECT_NE(Read().process.stopped_ms, 0);
}

TEST_F(Health, EachRs485FaultIsKnownByItsCauseAndOutlivesTheDaemon) {
  const FaultCase cases[] = {{FaultKind::kNone, TAMSEL_CAUSE_ANSWERED, 0},
                             {FaultKind::kSilence, TAMSEL_CAUSE_NO_ANSWER, 0},
                             {{FaultKind::kGarbage, 450}, TAMSEL_CAUSE_TOO_LONG, 0},
                             {FaultKind::kOtherAddress, TAMSEL_CAUSE_NOT_ITS_ANSWER, 0}};
  simulator::FieldSimulatorConfig config;
  config.buses.push_back({folder_.Path("bus"), {{1}, {2}, {3}, {4}}});
  for (std::size_t i = 0; i < 4; ++i) {
    config.buses[0].devices[i].fault = cases[i].fault;
  }
  simulator::FieldSimulator field(config);
  field.Start();
  ::setenv("RS485_PORT_1", folder_.Path("bus").c_str(), 1);
  ::setenv("RS485_PORT_2", folder_.Path("nowhere").c_str(), 1);
  Rs485Request request = MakeRs485Request(1, VLM_RS485_BAUD_115200);
  for (byte address = 1; address <= 4; ++address) {
    EXPECT_FALSE(AddRs485Device(request, {address, VLM_RS485_8N1, 300, 0, 0, 0},
                                modbus::RtuFrame(address, ReadPdu())));
  }
  Rs485Request elsewhere = request;
  elsewhere.header.channel_index = elsewhere.payload.channel = 2;
  for (std::uint32_t life = 1; life <= 2; ++life) {
    DaemonProcess daemon(Changes());
    EXPECT_EQ(Exchange(daemon, request).receive_data.status, 0);
    EXPECT_EQ(Exchange(daemon, elsewhere).receive_data.status, 8);
    daemon.Signal(SIGKILL);
    daemon.WaitForExit(5000);
    for (int address = 1; address <= 4; ++address) {
      const FaultCase& row = cases[address - 1];
      const tamsel_health_device device = Device(1, TAMSEL_HEALTH_RS485, address);
      EXPECT_EQ(device.ends[row.cause], life) << address << " " << int{device.last_cause};
      EXPECT_EQ(device.port, std::uint32_t{VLM_RS485_BAUD_115200});
      const tamsel_health_device nowhere = Device(2, TAMSEL_HEALTH_RS485, address);
      EXPECT_EQ(nowhere.ends[TAMSEL_CAUSE_PORT_NOT_OPENED], life);
      EXPECT_EQ(nowhere.last_detail, ENOENT);
    }
    const HealthSnapshot snapshot = Read();
    EXPECT_EQ(snapshot.process.starts, life);
    EXPECT_EQ(snapshot.channels[0].cycles, life);
    EXPECT_GE(snapshot.channels[0].cycle_least_us, 300000u);
    EXPECT_EQ(snapshot.channels[1].statuses[8 + 1], life);
    EXPECT_GE(snapshot.channels[0].longest_ms, 300u);
  }
}

TEST_F(Health, APulledAdapterIsGoneInEveryPollUntilItIsBack) {
  simulator::FieldSimulatorConfig config;
  config.buses.push_back({folder_.Path("bus"), {{1}}});
  simulator::FieldSimulator field(config);
  field.Start();
  ::setenv("RS485_PORT_1", folder_.Path("bus").c_str(), 1);
  Settings changes = Changes();
  changes["TamselComStartComFailedCloseCount"] = "2";
  const DaemonProcess daemon(changes);
  Rs485Request request = MakeRs485Request(1, VLM_RS485_BAUD_115200);
  EXPECT_FALSE(
      AddRs485Device(request, {1, VLM_RS485_8N1, 300, 0, 0, 0}, modbus::RtuFrame(1, ReadPdu())));
  const auto poll = [&] { return Exchange(daemon, request).receive_data.status; };
  const auto device = [&] { return Device(1, TAMSEL_HEALTH_RS485, 1); };
  EXPECT_EQ(poll(), 0);
  field.Unplug(0);
  std::uint32_t gone = 0;
  for (const int status : {0, 5, 5, 8, 8}) {  // found, not opened again, closed, not opened
    EXPECT_EQ(poll(), status);
    EXPECT_EQ(device().ends[TAMSEL_CAUSE_PORT_GONE], ++gone) << status;
  }
  field.Plug(0);
  EXPECT_EQ(poll(), 0);
  EXPECT_EQ(device().ends[TAMSEL_CAUSE_ANSWERED], 2u);
}

TEST_F(Health, AScansRequestIsExchangedAsAnyOtherAndNotCounted) {
  ::setenv("RS485_PORT_2", folder_.Path("nowhere").c_str(), 1);
  const DaemonProcess daemon(Changes());
  const Devices devices(1);
  TcpIpRequest request = devices.Request(3);
  Rs485Request bus = MakeRs485Request(2, VLM_RS485_BAUD_115200);
  EXPECT_FALSE(
      AddRs485Device(bus, {1, VLM_RS485_8N1, 300, 0, 0, 0}, modbus::RtuFrame(1, ReadPdu())));
  std::memcpy(request.header.buffer, TAMSEL_SCAN_MARK, std::strlen(TAMSEL_SCAN_MARK));
  std::memcpy(bus.header.buffer, TAMSEL_SCAN_MARK, std::strlen(TAMSEL_SCAN_MARK));
  for (const std::uint32_t counted : {0u, 1u, 2u}) {
    ExpectAnswered(Exchange(daemon, request), 1);
    EXPECT_EQ(Exchange(daemon, bus).receive_data.status, 8);
    EXPECT_EQ(Device(3, TAMSEL_HEALTH_TCPIP, 1).exchanges, counted);
    EXPECT_EQ(Device(2, TAMSEL_HEALTH_RS485, 1).exchanges, counted);
    std::uint32_t requests = 0;
    for (const tamsel_health_channel& channel : Read().channels) {
      requests += channel.channel == 1 ? 0 : channel.requests;  // 1: until the daemon answered
    }
    EXPECT_EQ(requests, 2 * counted);
    // Whatever else the client's own bytes are means nothing.
    ++request.header.buffer[counted == 0 ? 15 : 16];
    ++bus.header.buffer[counted == 0 ? 0 : 46];
  }
}

TEST_F(Health, AFileOfAnotherLayoutIsMovedAsideAndKept) {
  int number = 0;
  const std::tuple<std::uint32_t, std::uint32_t, const char*> rows[] = {
      {2, 96256, ".layout-2"}, {2, 200, ".layout-2-2"}, {1, 96768, ".layout-1"}};
  for (const auto& [version, size, name] : rows) {
    HealthFile file;
    file.Add(1, 2, ++number, TAMSEL_CAUSE_NO_ANSWER);
    file.contents.header.version = version;
    file.contents.header.file_size = size;
    file.Write(path_);
    const std::string before = ReadFile(path_);
    const DaemonProcess daemon(Changes());
    EXPECT_EQ(ReadFile(path_ + name), before) << name;
    EXPECT_TRUE(Read().devices.empty()) << name;
    const std::string moved = "[W] Health Health file of another layout [" + path_ +
                              "] moved to [" + path_ + name + "]\n";
    EXPECT_EQ(CountText(daemon.Console(), moved), 1) << daemon.Console();
    EXPECT_EQ(CountText(daemon.Console(), "ealth file"), 1) << daemon.Console();
  }
}

TEST_F(Health, AKillAtAnyMomentLosesNothingThatAClientWasTold) {
  Devices devices(31);
  std::uint32_t told = 0;
  for (int life = 0; life < 8; ++life) {
    DaemonProcess daemon(Changes());
    ExpectAnswered(Exchange(daemon, devices.Request(1)), 31);
    ++told;
    auto kill = std::async(std::launch::async, [&] {
      SleepMs(5 * life);
      daemon.Signal(SIGKILL);
    });
    const TamselClient client(daemon.SocketPath());
    while (client.Exchange(devices.Request(1), 5000).outcome == Outcome::kAnswered) {
      ++told;
    }
    kill.wait();
    const HealthSnapshot snapshot = Read();
    EXPECT_EQ(snapshot.damaged_records, 0);
    EXPECT_GE(snapshot.channels[0].requests, told);
    EXPECT_EQ(snapshot.devices.size(), 31u);
    for (const auto& device : snapshot.devices) {
      EXPECT_GE(device.exchanges, told);
      EXPECT_LE(device.exchanges, told + life + 1) << "more than one in flight at each kill";
    }
  }
}

TEST_F(Health, TheDaemonsOwnCondition) {
  Settings changes = Changes();
  changes["SdcardPath"] = "/proc/nowhere";
  const DaemonProcess daemon(changes);
  Devices devices(1, FaultKind::kSilence);
  const RawClient busy(daemon.SocketPath(), devices.Request(1, 1000));
  EXPECT_TRUE(WaitFor(
      900, [&] { return Exchange(daemon, MakeTcpIpRequest(1)).receive_data.status == 10; }));
  EXPECT_GE(Read().channels[0].busy_refusals, 1u);
  EXPECT_TRUE(WaitFor(4000, [&] { return Read().process.card_gone_since_ms != 0; }));
  EXPECT_GE(Read().process.descriptors_in_use, 5u);
  EXPECT_TRUE(Contains(RunShell(TAMSEL_BIN_DIR "/tamsel_communication --version").output,
                       std::string(" ") + Read().process.version + " "));
  daemon.Signal(SIGPWR);
  EXPECT_TRUE(WaitFor(4000, [&] { return Read().process.power == TAMSEL_POWER_OUTAGE; }));
}

#if __SIZEOF_POINTER__ == 8
TEST_F(Health, AClockThatIsSetLateDatesWhatCameBefore) {
  const std::string unset = folder_.Path("unset");
  WriteFile(unset, "");
  const auto now_ms = [] {
    return std::chrono::system_clock::now().time_since_epoch() / std::chrono::milliseconds(1);
  };
  const std::int64_t begin = now_ms();
  const DaemonProcess daemon(Changes(),
                             {true, "export LD_PRELOAD=" UNSET_CLOCK " UNSET_WHILE=" + unset +
                                        " ASAN_OPTIONS=verify_asan_link_order=0"});
  Devices devices(1, FaultKind::kSilence);
  Exchange(daemon, devices.Request(1, 50));
  const std::int64_t end = now_ms();
  const auto failing_since = [this] { return Device(1, TAMSEL_HEALTH_TCPIP, 1).failing_since_ms; };
  EXPECT_LT(failing_since(), begin / 2);
  std::filesystem::remove(unset);
  EXPECT_TRUE(WaitFor(3000, [&] { return failing_since() > begin / 2; }));
  EXPECT_EQ(Read().devices.size(), 1u);
  for (const std::int64_t moment :
       {failing_since(), Read().process.started_ms, Read().channels[0].last_request_ms}) {
    EXPECT_GE(moment, begin - kSlackMs);
    EXPECT_LE(moment, end + kSlackMs);
  }
}
#endif

TEST_F(Health, AFileSystemThatHangsHoldsNobodyUpAndLosesNothing) {
  const std::string hanging = folder_.Path("hanging");
  WriteFile(hanging, "");
  Devices devices(31);
  const Stopwatch start;
  DaemonProcess daemon(Changes(), {true, "export LD_PRELOAD=" HANGING_PWRITE " HANGING_WHILE=" +
                                             hanging + " ASAN_OPTIONS=verify_asan_link_order=0"});
  EXPECT_LT(start.Ms(), 100 + 2 * kSlackMs);
  std::uint32_t rounds = 0;
  const auto exchange = [&] {
    const Stopwatch watch;
    ExpectAnswered(Exchange(daemon, devices.Request(1)), 31);
    EXPECT_LT(watch.Ms(), 2 * kSlackMs);
    ++rounds;
  };
  for (int time = 1; time <= 2; ++time) {
    exchange();
    SleepMs(1200);  // a pass of the keeper hangs
    exchange();
    std::filesystem::remove(hanging);
    EXPECT_TRUE(WaitFor(3000, [&] { return ReadHealth(path_).snapshot.has_value(); }));
    for (const int address : {1, 31}) {
      EXPECT_TRUE(WaitFor(
          3000, [&] { return Device(1, TAMSEL_HEALTH_TCPIP, address).exchanges == rounds; }));
    }
    WriteFile(hanging, "");
  }
  exchange();
  ExpectStops(daemon);
}

TEST_F(Health, AReaderNeverSeesHalfARecordAndHoldsNobodyUp) {
  const DaemonProcess daemon(Changes());
  Devices devices(31);
  std::atomic<bool> is_over{false};
  std::vector<std::future<int>> requests;
  for (int channel = 1; channel <= kMaxChannel; ++channel) {
    requests.push_back(std::async(std::launch::async, [&, channel] {
      int answered = 0;
      for (int round = 0; round < 10; ++round) {
        answered += Exchange(daemon, devices.Request(channel)).receive_data.status == 0 ? 1 : 0;
      }
      return answered;
    }));
  }
  auto reader = std::async(std::launch::async, [&] {
    int damaged = 0;
    while (!is_over) {
      damaged += Read().damaged_records;
    }
    return damaged;
  });
  for (auto& answered : requests) {
    EXPECT_EQ(answered.get(), 10);
  }
  is_over = true;
  EXPECT_EQ(reader.get(), 0);
  EXPECT_EQ(Read().devices.size(), 93u);
  EXPECT_EQ(Device(2, TAMSEL_HEALTH_TCPIP, 31).ends[TAMSEL_CAUSE_ANSWERED], 10u);
}

}  // namespace
}  // namespace tmsc::test
