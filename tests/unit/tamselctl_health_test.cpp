#include <gtest/gtest.h>

#include "support/health_file.h"
#include "support/shell.h"

namespace tmsc {
namespace {

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
  std::string("<b>\\\"\033").copy(process.version, 9);
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
               {"<b>\\\"?: running", "1            1208     3       8           2         900",
                "5 devices, 4 do not answer", "17  fails for 2 h", cut, "100 %  75 %",
                "5  answered", "earlier: no answer in time (3)", "12    12    12", "20 %  33 %",
                "192.0.2.7:502", "never answered on channel 2 RS485: 4, 5, 7 (serial port cannot"});
  ExpectHealth(file, "health --device 1-5 --channel 1", 0, {"1 device answers."});
  ExpectHealth(file, "health --failing", 5,
               {"4 devices, 4 do not", "17  fails", "4  never answered in 5 exchanges"});
  ExpectHealth(
      file, "health --json", 5,
      {R"("ok":false,"cause":"cut_short","cause_code":13,"detail":7)",
       R"("response_ms":{"count":1,"last":12.345)", R"("last_day":{"answered":4,"failed":2)"});
  ExpectHealth(file, "health --openmetrics --output out; cat out; ls -A", 0,
               {R"(version="<b>\\\"?"} 1)", R"(tamsel_requests_total{channel="1",status="1"} 8)",
                "tamsel_device_answering{channel=\"1\",transport=\"tcpip\",address=\"17\"} 0",
                R"(address="17",cause="cut_short"} 4)", "# EOF\nhealth\nout\n"});
  ExpectHealth(file, "health --html -", 5,
               {"&lt;b&gt;\\&quot;?: <", ", 1 of 5 failed\">2</i>", "33 %",
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
      "health --watch 100ms >out & until [ $(grep -c daemon out) = 3 ]; do sleep 0.02; done; "
      "kill $!; wait $!",
      5, {});
  ExpectHealth(file, "none", 3, {"none cannot be read: No such file"});
  ExpectHealth(file, "--settings health", 3, {"the settings name no HealthFilePath"});
  ExpectHealth(file, "health --output .", 1, {". cannot be written: it is no regular file"});
}

}  // namespace
}  // namespace tmsc
