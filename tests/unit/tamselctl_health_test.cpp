#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "support/health_file.h"
#include "support/shell.h"

namespace tmsc {
namespace {

// What `health` prints of the file.
std::string Health(test::HealthFile& file, const std::string& arguments) {
  const test::TempFolder folder;
  file.Write(folder.Path("health"));
  return test::RunShell(TAMSELCTL_PATH " health " + folder.Path("health") + arguments).output;
}

// What `health` says of the file: its exit status, and what stands in its output in this order.
void ExpectHealth(test::HealthFile& file, const std::string& arguments, int exit_code,
                  const std::vector<std::string>& texts) {
  const test::TempFolder folder;
  file.Write(folder.Path("health"));
  const auto run = test::RunShell("sh -c 'cd " + folder.Path() + "; " TAMSELCTL_PATH " health " +
                                  arguments + "'");
  EXPECT_EQ(run.exit_code, exit_code) << arguments << run.output;
  std::size_t position = 0;
  for (const std::string& text : texts) {
    position = run.output.find(text, position);
    ASSERT_NE(position, std::string::npos) << arguments << ": no " << text << "\n" << run.output;
  }
}

TEST(TamselctlHealth, EveryFormSaysWhoFailsSinceWhenAndWhy) {
  test::HealthFile file;
  tamsel_health_process& process = file.contents.process;
  ExpectHealth(file, "health", 0, {"1.2.3: running for 1 h", "2 restarts", "No device has been"});
  std::string("<b>\\\"\xC2\x9B\xFF\033").copy(process.version, 9);
  for (const int hours_ago : {47, 10, 0, 0, 0}) {
    file.Add(1, 2, 5, hours_ago == 0 ? 1 : 3, hours_ago).response_count = 1;
    file.Add(2, 1, 4, 18);
    file.Add(2, 1, 5, 18);
    file.Add(2, 1, 7, 18);
    file.Add(1, 2, 17, hours_ago == 10 ? 1 : 13, hours_ago).last_detail = 7;
  }
  file.Add(1, 2, 5, 3);
  auto& good = file.Add(1, 2, 5, 1);
  good.response_total_us = good.response_most_us = good.response_last_us = 12345;
  std::string("192.0.2.7").copy(good.ip_address, 15);
  good.port = 502;
  file.contents.channels[0] = {0, 1, 1208, 3, 2, 900, 0, 0, {0, 1200, 8}, 0, 0, 0, 0, 0, {}};
  const std::string cut = "frame cut short after 7 bytes, 3 in a row";
  ExpectHealth(file, "health", 5,
               {"<b>\\\"\uFFFD\uFFFD\uFFFD: running",
                "1            1208     3       8           2  8 of status 1 (", "900",
                "5 devices, 4 do not answer",
                "never answered on channel 2 RS485: 4, 5, 7 (serial port cannot",
                "17  fails for 2 h", cut, "100 %  75 %", "5  answered",
                "earlier: no answer in time (3)", "12    12    12", "20 %  33 %", "192.0.2.7:502"});
  ExpectHealth(file, "health --device 1-5 --channel 1", 0, {"1 device answers."});
  ExpectHealth(file, "health --failing", 5,
               {"4 devices, 4 do not", "17  fails", "4  never answered in 5 exchanges"});
  ExpectHealth(
      file, "health --json", 5,
      {"\"<b>\\\\\\\"\uFFFD\uFFFD\uFFFD\",",
       R"("ok":false,"cause":"cut_short","cause_code":13,"detail":7)",
       R"("response_ms":{"count":1,"last":12.345)", R"("last_day":{"answered":4,"failed":2)"});
  ExpectHealth(file, "health --openmetrics --output out; cat out; ls -A", 0,
               {"version=\"<b>\\\\\\\"\uFFFD\uFFFD\uFFFD\"} 1",
                R"(tamsel_requests_total{channel="1",status="1"} 8)",
                "tamsel_device_answering{channel=\"1\",transport=\"tcpip\",address=\"17\"} 0",
                R"(address="17",cause="cut_short"} 4)", "# EOF\nhealth\nout\n"});
  ExpectHealth(file, "health --html -", 5,
               {"<title>Field health: health</title>", "&lt;b&gt;\\&quot;\uFFFD\uFFFD\uFFFD: <",
                "; all times are local, ", " (UTC", ", 1 of 5 failed\">2</i>", "33 %",
                ">17</span> <small class=\"bad\">fails for 2 h", ">·</i>", ">X</i></div>",
                "12 / 12 / 12 ms", cut});
  process.updated_ms = file.Ago(40);
  ExpectHealth(file, "health", 5, {"killed or crashed; last seen 20"});
  process.stopped_ms = file.Ago(3600 * 26);
  process.pid = 1;
  ExpectHealth(file, "health", 5, {"stopped 20", "1 d 2 h ago"});
  process.stopped_ms = 0;
  ExpectHealth(file, "health", 5, {"has not written since 20", "a process 1\n"});
  ExpectHealth(
      file,
      "health --watch 100ms >out & until [ $(grep -c daemon out) -ge 3 ]; do sleep 0.02; done; "
      "kill $!; wait $!",
      5, {});
  ExpectHealth(file, "health --watch 100ms --count 2 | grep -c daemon", 0, {"2\n"});
  ExpectHealth(file, "health --json --openmetrics", 2, {"--json excludes --openmetrics"});
  ExpectHealth(file, "none", 3, {"none cannot be read: No such file"});
  ExpectHealth(file, "--settings health", 3, {"name no HealthFilePath"});
  ExpectHealth(file, "health --output .", 1, {". cannot be written: it is no regular file"});
}

TEST(TamselctlHealth, FiguresAreThoseOfTheFileInEveryForm) {
  test::HealthFile file;
  file.contents.process.card_gone_since_ms = file.Ago(90 * 60);
  file.contents.process.power = TAMSEL_POWER_OUTAGE;
  file.contents.channels[0] = {0,         1, 7,    0,   0,     1250,  0, 0,
                               {0, 6, 1}, 4, 1000, 900, 31000, 10000, {}};
  for (int exchange = 0; exchange < 2000; ++exchange) {
    file.Add(1, 2, 1, exchange == 0 ? 3 : 1);
    file.Add(3, 2, 1, exchange == 0 ? 11 : exchange < 1990 ? 4 : 1);
  }
  for (int exchange = 0; exchange < 14; ++exchange) {
    auto& device = file.Add(1, 2, 2, exchange == 0 ? 3 : 1, exchange == 0 ? 10 : 0);
    device.response_count = 13;
    device.response_total_us = 94900;
    device.response_last_us = 2500;
    device.response_least_us = 1200;
    device.response_most_us = 31400;
  }
  file.Add(2, 1, 4, 18);
  for (const int address : {3, 9}) {
    file.Add(1, 2, address, 1);
    file.Add(1, 2, address, 13).failing_since_ms = file.Ago(address == 3 ? 600 : 7200);
  }
  const test::TempFolder folder;
  test::WriteFile(folder.Path("site"),
                  R"({"name": "Park", "buses": [{"channel": 1, "baud": 9600, "devices":
      [{"name": "Other", "address": 3}]}, {"channel": 1, "devices":
      [{"name": "R&Ü", "address": 3, "ip": "192.0.2.1"}]}]})");
  const std::string site = " --site " + folder.Path("site");
  ExpectHealth(file, "health" + site, 5,
               {"power outage, card gone, full or read-only for 1 h 30 min", "1 of status 1",
                "  1.0 / 2.5 / 31", "device  name  state", "       9        fails for 2 h",
                "  3  R&Ü   fails for 10 min", " 50 %    50 %",
                "  4        never answered in 1 exchange  serial", "  1        answered",
                "connect refused (1989), connection reset by the device (1)", ">99 %   >99 %",
                "  2        answered", "2.5   7.3    31     0 %   7.1 %", "<0.1 %  <0.1 %"});
  ExpectHealth(
      file, "health --openmetrics", 5,
      {"tamsel_daemon_running 1", "tamsel_card_present 0", "gauge\ntamsel_power_on 0\n",
       "_longest_seconds{channel=\"1\"} 1.250000", "cycle_seconds_sum{channel=\"1\"} 0.010000",
       "cycle_seconds_count{channel=\"1\"} 4", "address=\"2\"} 0.002500", "address=\"2\"} 0.031400",
       "address=\"2\"} 0.094900", "address=\"2\"} 13"});
  const std::string metrics = Health(file, " --openmetrics");
  EXPECT_EQ(test::CountText(metrics, "tamsel_device_last_answer_timestamp_seconds{"), 5);
  ExpectHealth(file, "health --html -" + site, 5,
               {"<title>Field health: Park, health</title>", ">channel 1 TCP/IP: 3 R&amp;Ü, 9<",
                ">3 R&amp;Ü<", "<h2>Causes", "connect refused", "1989 times, 1 device<",
                "2 times, 2 devices<"});
  file.Write(folder.Path("health"));
  test::WriteFile(folder.Path("settings"),
                  test::SettingsXml({{"HealthFilePath", folder.Path("health")}}));
  char host[256] = "";
  ::gethostname(host, sizeof(host));
  const std::string page =
      test::RunShell(TAMSELCTL_PATH " health --html - --settings " + folder.Path("settings") + site)
          .output;
  EXPECT_TRUE(test::Contains(page, "<title>Field health: Park, " + std::string(host) + "<"));
  const auto json = nlohmann::json::parse(Health(file, " --json --channel 1 --device 2"));
  EXPECT_EQ(json.at("channels").at(0).at("statuses"), nlohmann::json({{"0", 6}, {"1", 1}}));
  EXPECT_EQ(json.at("devices").at(0).at("response_ms"),
            nlohmann::json(
                {{"count", 13}, {"last", 2.5}, {"least", 1.2}, {"mean", 7.3}, {"most", 31.4}}));
  const auto& hours = json.at("devices").at(0).at("hours");
  const std::string now = json.at("daemon").at("updated");
  EXPECT_EQ(hours.back().at("hour"), now.substr(0, 13) + ":00:00.000Z");
  EXPECT_EQ(hours.front().at("failed"), 1);
}

TEST(TamselctlHealth, AFileOfTheDayBeforeYesterdayAndADamagedOne) {
  test::HealthFile file;
  auto& device = file.Add(1, 2, 1, 3, 60);
  device.newest_hour -= 60;
  device.last_ms = file.contents.process.stopped_ms = file.contents.process.updated_ms =
      file.Ago(60 * 3600);
  ExpectHealth(file, "health", 5, {"stopped", "100 %  100 %"});
  ExpectHealth(file, "health --openmetrics", 5, {"tamsel_daemon_running 0"});
  ExpectHealth(file,
               "health; printf x | dd of=health seek=1400 bs=1 conv=notrunc 2>&1;" TAMSELCTL_PATH
               " health health",
               5, {"1 damaged records of the file are left out"});
}

TEST(TamselctlHealth, AFileThatIsCutOrOfAnotherLayoutIsNoEmptyOne) {
  test::HealthFile file;
  file.Add(1, 2, 1, 1);
  const std::string damaged = "is damaged: of its 96256 bytes only ";
  for (const char* const size : {"8", "64", "1000", "96255"}) {
    ExpectHealth(
        file,
        std::string("health >out; head -c ") + size + " health >cut; " TAMSELCTL_PATH " health cut",
        3, {damaged + size + " are there"});
  }
  ExpectHealth(file, "health >out; cat health health >long; " TAMSELCTL_PATH " health long", 0,
               {"1 device answers."});
  file.contents.header.file_size += 512;
  ExpectHealth(file, "health", 3,
               {"layout version 1 of 96768 bytes, this program knows that of 96256 bytes"});
  ++file.contents.header.version;
  ExpectHealth(file, "health", 3, {"layout version 2, this program knows 1"});
}

TEST(TamselctlHealth, ARenewalThatIsStillToComeCountsWhileTheProcessLives) {
  test::HealthFile file;
  file.contents.process.updated_ms = file.Ago(-600);
  ExpectHealth(file, "health", 0, {"killed or crashed; last seen 20", ", ahead of the clock"});
  ExpectHealth(file, "health --openmetrics", 0, {"tamsel_daemon_running 0"});
  file.contents.process.pid = 1;
  ExpectHealth(file, "health", 0, {"running for 1 h"});
}

TEST(TamselctlHealth, ADeviceThatIsNoLongerAskedNeitherAnswersNorFails) {
  struct Row {
    int last_seconds_ago;
    std::uint32_t interval_ms;
    int started_seconds_ago;
    bool is_asked;
  };
  for (const Row& row :
       {Row{590, 0, 3600, true}, Row{610, 0, 3600, false}, Row{610, 59000, 3600, false},
        Row{890, 90000, 3600, true}, Row{910, 90000, 3600, false}, Row{9000, 0, 590, true},
        Row{9000, 0, 610, false}, Row{-9000, 0, 3600, true}}) {
    test::HealthFile file;
    file.contents.process.started_ms = file.Ago(row.started_seconds_ago);
    auto& device = file.Add(1, 2, 7, TAMSEL_CAUSE_NO_ANSWER);
    device.last_ms = file.Ago(row.last_seconds_ago);
    device.interval_ms = row.interval_ms;
    ExpectHealth(
        file, "health", row.is_asked ? 5 : 0,
        {row.is_asked ? "1 device, 1 does not answer." : "1 device, 1 is no longer asked."});
  }
  test::HealthFile file;
  for (const int address : {3, 4, 5, 6}) {
    auto& device = file.Add(1, 2, address, address == 3 ? 1 : 3);
    device.last_ms = file.Ago(address < 5 ? 3600 * 26 : 1);
  }
  file.Add(1, 2, 5, 1);
  ExpectHealth(file, "health", 5,
               {"4 devices, 2 are no longer asked, 1 of the others does not answer.", "  6  never",
                "  5  answered", "  3  not asked for 1 d 2 h  ",
                "  4  not asked for 1 d 2 h         last: no answer in time"});
  ExpectHealth(file, "health --failing", 5, {"1 device, 1 does not answer."});
  ExpectHealth(file, "health --device 3-5", 0,
               {"3 devices, 2 are no longer asked, all others answer."});
  ExpectHealth(file, "health --device 4 --failing", 0, {"No device fails."});
  ExpectHealth(file, "health --html - --device 4", 0,
               {"1 is no longer asked", "\"faint\">not asked for 1 d 2 h", "last: no answer"});
  const auto devices = nlohmann::json::parse(Health(file, " --json")).at("devices");
  const std::string metrics = Health(file, " --openmetrics");
  const std::tuple<int, const char*, nlohmann::json> states[] = {{6, "failing", false},
                                                                 {5, "answering", true},
                                                                 {3, "not_asked", nullptr},
                                                                 {4, "not_asked", nullptr}};
  std::size_t index = 0;
  for (const auto& [address, state, ok] : states) {
    const auto& device = devices.at(index++);
    EXPECT_EQ(device.at("device"), address);
    EXPECT_EQ(device.at("state"), state) << address;
    EXPECT_EQ(device.at("ok"), ok) << address;
    const bool is_asked = !ok.is_null();
    const std::string labels =
        "{channel=\"1\",transport=\"tcpip\",address=\"" + std::to_string(address) + "\"} ";
    EXPECT_TRUE(
        test::Contains(metrics, "tamsel_device_asked" + labels + (is_asked ? "1\n" : "0\n")));
    EXPECT_EQ(test::CountText(metrics, "tamsel_device_answering" + labels), is_asked ? 1 : 0);
  }
  EXPECT_EQ(test::CountText(metrics, "tamsel_device_failing_since_timestamp_seconds{"), 1);
}

}  // namespace
}  // namespace tmsc
