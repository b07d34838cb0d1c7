// A field in which every device does something else wrong, and what the field tool says of it.

#include <nlohmann/json.hpp>

#include "daemon_client.h"

namespace tmsc::test {
namespace {

using nlohmann::json;
using simulator::Fault;
using simulator::FaultKind;

/// A device's fault, and what the tool calls that.
struct FaultRow {
  Fault fault;
  const char* cause;      // of health
  const char* words;      // of a request, for what is no good answer
  const char* log_words;  // of the log's summary; null: answered
};

constexpr const char* kAnswered = "answered";

// Device n is row n - 1. Each time-out outlasts what a busy machine holds an answer up for.
const std::vector<FaultRow>& TcpRows() {
  static const auto& rows = *new std::vector<FaultRow>{
      {FaultKind::kNone, kAnswered, "ok", nullptr},
      {{FaultKind::kDelay, 100}, kAnswered, "ok", nullptr},
      {FaultKind::kSilence, "no_answer", "no answer in time", "no answer in time, or reset"},
      {FaultKind::kRefuse, "connect_refused", "connect refused", "connect refused"},
      {FaultKind::kCloseAfter, kAnswered, "ok", nullptr},
      {FaultKind::kCloseBefore, "closed", "connection closed by the device",
       "closed by the device"},
      {FaultKind::kCloseMidFrame, "cut_short", "frame cut short after 7 bytes", "answer cut short"},
      {FaultKind::kPieces, kAnswered, "ok", nullptr},
      {FaultKind::kSplitHeader, kAnswered, "ok", nullptr},
      {FaultKind::kTooLong, "too_long", "frame too long (439 bytes)", "answer too long"},
      {FaultKind::kLongest, kAnswered, "misfit: not the registers asked", nullptr},
      {FaultKind::kWrongLength, "cut_short", "frame cut short after 15", "answer cut short"},
      {FaultKind::kZeroLength, kAnswered, "misfit: no Modbus/TCP frame", nullptr},
      {FaultKind::kEndless, kAnswered, "ok", nullptr},
      {{FaultKind::kLate, 100}, kAnswered, "ok", nullptr},
      {FaultKind::kGarbage, "too_long", "frame too long", "answer too long"},
      {FaultKind::kFixed, "too_long", "frame too long (65541 bytes)", "answer too long"},
      {FaultKind::kReset, "reset", "connection reset by the device", "no answer in time, or reset"},
      {FaultKind::kUnaccepted, "connect_timed_out", "connect timed out", "connect timed out"}};
  return rows;
}

const std::vector<FaultRow>& BusRows() {
  static const auto& rows = *new std::vector<FaultRow>{
      {FaultKind::kNone, kAnswered, "answered", nullptr},
      {{FaultKind::kDelay, 100}, kAnswered, "answered", nullptr},
      {FaultKind::kSilence, "no_answer", "no answer in time", "no answer in time"},
      {FaultKind::kPieces, kAnswered, "answered", nullptr},
      // Behind a whole frame with the right check sum nothing is waited for.
      {FaultKind::kTooLong, kAnswered, "answered", nullptr},
      {{FaultKind::kGarbage, 450}, "too_long", "frame too long", "answer too long"},
      {FaultKind::kGarbage, "not_its_answer", "answer of somebody else", "not its answer"},
      {FaultKind::kNoise, kAnswered, "answered", nullptr},
      {FaultKind::kWrongCrc, "wrong_check_sum", "wrong CRC", nullptr},
      {FaultKind::kOtherAddress, "not_its_answer", "answer of somebody else", "not its answer"},
      {{FaultKind::kPause, 80}, kAnswered, "answered", nullptr},
      {FaultKind::kCut, "wrong_check_sum", "wrong CRC", nullptr},
      {FaultKind::kParity, "line_error", "line error", "line error"},
      // Last, so that its frame comes between two rounds.
      {{FaultKind::kLate, 1200}, "no_answer", "no answer in time", "no answer in time"}};
  return rows;
}

constexpr int kTcpRounds = 3;
constexpr int kBusRounds = 2;

/// One side of the field: the devices of one channel.
struct Side {
  const std::vector<FaultRow>& rows;
  int channel;
  int rounds;
  std::string pace;
  std::string devices;  // options of `request`
};

class FaultyField : public ::testing::Test {
 protected:
  FaultyField() : field_(Config(folder_.Path("bus"))) {
    ::setenv("RS485_PORT_1", folder_.Path("bus").c_str(), 1);
    field_.Start();
    for (std::size_t i = 0; i < TcpRows().size(); ++i) {
      const int address = static_cast<int>(i) + 1;
      tcp_.devices += " --device " + std::to_string(address) + "=" + Ip(address) + ":" +
                      std::to_string(field_.Port(address));
    }
    daemon_.emplace(Settings{{"HealthFilePath", folder_.Path("health")},
                             {"TcpReuseCheck", "1"},
                             {"TcpDrainTimeout", "300"}});
  }

  // Each device has an address of its own, by which alone the log knows it.
  static std::string Ip(int address) { return "127.0.9." + std::to_string(address); }

  static simulator::FieldSimulatorConfig Config(const std::string& bus) {
    simulator::FieldSimulatorConfig config;
    int address = 0;
    for (const FaultRow& row : TcpRows()) {
      ++address;
      config.devices.push_back({address, Ip(address), 0, row.fault});
    }
    config.buses.push_back({bus, {}, 0, true});  // none of these echoes counts as an answer
    for (const FaultRow& row : BusRows()) {
      config.buses[0].devices.push_back(
          {static_cast<int>(config.buses[0].devices.size()) + 1, row.fault});
    }
    return config;
  }

  ShellResult Run(const std::string& arguments) const {
    return RunShell(TAMSEL_BIN_DIR "/tamselctl " + arguments);
  }
  json RunJson(const std::string& arguments) const {
    const ShellResult run = Run(arguments);
    json parsed = json::parse(run.output, nullptr, false);
    EXPECT_FALSE(parsed.is_discarded()) << arguments << run.output;
    return parsed;
  }

  std::string Request(const Side& side) const {
    return "request --read-holding 0,3 --timeout 500 --json --channel " +
           std::to_string(side.channel) + side.devices + " --settings " +
           daemon_->Folder().Path("settings.xml");
  }

  /// What is said of each round while it happens.
  void ExpectRequests(const Side& side) const {
    const ShellResult run =
        Run(Request(side) + " --watch " + side.pace + " --count " + std::to_string(side.rounds));
    EXPECT_EQ(run.exit_code, 5);
    std::istringstream lines(run.output);
    for (std::string line; std::getline(lines, line);) {
      const json round = json::parse(line, nullptr, false);
      const bool is_summary = round.contains("summary");
      const json& devices = is_summary ? round["summary"]["devices"] : round["devices"];
      ASSERT_EQ(devices.size(), side.rows.size()) << line;
      for (std::size_t i = 0; i < side.rows.size(); ++i) {
        const FaultRow& row = side.rows[i];
        const bool is_good = row.words == std::string("ok") || row.words == std::string(kAnswered);
        if (is_summary) {
          EXPECT_EQ(devices[i]["answered"], is_good ? side.rounds : 0) << devices[i];
          EXPECT_EQ(devices[i]["failed"], is_good ? 0 : side.rounds) << devices[i];
        } else {
          EXPECT_STREQ(devices[i]["cause"].get<std::string>().c_str(), row.cause) << devices[i];
          EXPECT_EQ(devices[i]["ok"], is_good) << devices[i];
          EXPECT_EQ(devices[i]["status"].get<std::string>().find(row.words), 0U) << devices[i];
        }
      }
    }
    EXPECT_EQ(CountText(run.output, "\n"), side.rounds + 1) << run.output;
  }

  static void ExpectMetrics(const std::string& metrics, const json& device,
                            const std::string& cause, int rounds) {
    const std::string labels = "{channel=\"" + device["channel"].dump() +
                               "\",transport=" + device["transport"].dump() + ",address=\"" +
                               device["device"].dump() + "\"";
    const std::string count = labels + ",cause=\"" + cause + "\"} " + std::to_string(rounds);
    const std::string state = labels + (cause == kAnswered ? "} 1\n" : "} 0\n");
    EXPECT_TRUE(Contains(metrics, "tamsel_exchanges_total" + count + "\n")) << count;
    EXPECT_TRUE(Contains(metrics, "tamsel_device_answering" + state)) << state;
  }

  void ExpectHealth(const Side& side) const {
    const std::string health = "health " + folder_.Path("health") + " ";
    const json devices =
        RunJson(health + "--json --channel " + std::to_string(side.channel))["devices"];
    const std::string metrics = Run(health + "--openmetrics").output;
    const std::string page = Run(health + "--html -").output;
    EXPECT_EQ(devices.size(), side.rows.size());
    for (const json& device : devices) {
      const int address = device["device"];
      const std::string cause = side.rows[static_cast<std::size_t>(address) - 1].cause;
      const bool is_good = cause == kAnswered;
      EXPECT_EQ(device["ends"], (json{{cause, side.rounds}})) << device;
      EXPECT_EQ(device["last_day"][is_good ? "answered" : "failed"], side.rounds) << device;
      EXPECT_EQ(device["failures_in_a_row"], is_good ? 0 : side.rounds) << device;
      ExpectMetrics(metrics, device, cause, side.rounds);
      EXPECT_TRUE(is_good || Contains(page, device["text"])) << device["text"];
    }
  }

  /// `rounds_without_bus` came after the others.
  void ExpectLog(const Side& side, const json& summary, int rounds_without_bus = 0) const {
    std::size_t devices = 0;
    for (const json& device : summary["devices"]) {
      if (device["channel"] != side.channel) {
        continue;
      }
      ++devices;
      const FaultRow& row = side.rows.at(device["device"].get<std::size_t>() - 1);
      json failures = json::object();
      if (row.log_words != nullptr) {
        failures[row.log_words] = side.rounds;
      }
      if (rounds_without_bus > 0) {
        failures["port gone"] = rounds_without_bus;
      }
      EXPECT_EQ(device["failures"], failures) << device;
      EXPECT_EQ(device["exchanges"], side.rounds + rounds_without_bus) << device;
    }
    EXPECT_EQ(devices, side.rows.size()) << summary;
  }

  const TempFolder folder_{"/dev/shm"};  // where the daemon writes the health at once
  simulator::FieldSimulator field_;
  std::optional<DaemonProcess> daemon_;
  Side tcp_{TcpRows(), 3, kTcpRounds, "10ms", ""};
  Side bus_{BusRows(), 1, kBusRounds, "4s", " --device 1-14 --baud 115200 --silence 255"};
};

TEST_F(FaultyField, EachFaultIsNamedRightAndCountedExactly) {
  ExpectRequests(tcp_);
  ExpectRequests(bus_);
  ExpectHealth(tcp_);
  ExpectHealth(bus_);
  field_.Unplug(0);
  const json unplugged = RunJson(Request(bus_))["devices"];
  EXPECT_EQ(unplugged.size(), bus_.rows.size());
  for (const json& device : unplugged) {
    EXPECT_EQ(device["cause"], "port_gone") << device;
  }
  ExpectStops(*daemon_);
  const json summary = RunJson("log --summary --json " + daemon_->Folder().Path("card"));
  ExpectLog(tcp_, summary);
  ExpectLog(bus_, summary, 1);
  EXPECT_EQ(summary["exchanges_of_unknown_device"], 0);
  EXPECT_EQ(summary["exchanges_without_end"], 0);
}

}  // namespace
}  // namespace tmsc::test
