#include <gtest/gtest.h>

#include <filesystem>
#include <future>
#include <sstream>

#include "support/files.h"
#include "support/shell.h"
#include "support/wait.h"

namespace tmsc::test {
namespace {

const std::string kLog = TAMSELCTL_PATH " log ";

void ExpectRun(const std::string& command, int exit_code, const std::string& text) {
  const ShellResult run = RunShell(command);
  EXPECT_TRUE(run.exit_code == exit_code && Contains(run.output, text))
      << command << " gives " << run.exit_code << ": " << run.output << ", not " << text;
}

TEST(TamselctlSettings, EachMistakeIsToldWithItsPlace) {
  const TempFolder folder;
  const std::string path = folder.Path("settings.xml");
  const std::string check = TAMSELCTL_PATH " settings " + path + " --devices 31 --every 5s ";
  const std::string size = "<LoggerComLogMaxFileSize>";
  const std::pair<std::string, std::string> rows[] = {
      {"<LogLevel>1</LogLvl>", ":2:14: not well-formed: Tag mismatch; all defaults hold"},
      {"<loglevel>1</loglevel>", ":2:1: loglevel: no key of the daemon's; did you mean LogLevel?"},
      {"<LogLevel>1</LogLevel>\n  <LogLevel>2</LogLevel>", ":2:1: LogLevel: given again in line 3"},
      {"<LogLevel>6</LogLevel>", "LogLevel: 6 is not 0 to 5; 1 holds"},
      {"<ApiRetryCount>three</ApiRetryCount>", "\"three\" is no number, or too large for one; 3"},
      {"<ApiRetryCount>30s</ApiRetryCount>", "\"30s\" is read as 30"},
      {"<LogLevel>1<!-- x -->2</LogLevel>", "only the last part counts"},
      {size + "500K</LoggerComLogMaxFileSize>", "\"500K\" is read as 1 bytes"},
      {size + "010KB</LoggerComLogMaxFileSize>", "\"010KB\" is read as 8192 bytes"},
      {size + "2GB</LoggerComLogMaxFileSize>", "10485760 bytes hold"},
      {"<ComSocketPath>/" + std::string(107, 'x') + "</ComSocketPath>", "108 bytes are more than"},
      {"<SdcardPath>/nonexistent</SdcardPath>", "/nonexistent does not exist"},
      {"<HealthFilePath>/dev/null/x</HealthFilePath>", "/dev/null is no folder"}};
  for (const auto& [text, mistake] : rows) {
    WriteFile(path, "<LoggerSetting>\n" + text + "\n</LoggerSetting>");
    ExpectRun(check, 1, mistake);
  }
  WriteFile(path, "<Settings/>");
  ExpectRun(check, 1, ":1:1: the root element is Settings and not LoggerSetting");
  std::filesystem::create_directory(folder.Path("card"));
  WriteFile(path, SettingsXml(SettingsIn(folder, {{"LoggerComLogMaxFileSize", "5MB"}})));
  ExpectRun(check, 0, "LogLevel 2 keeps a week as long as devices answer; with all of them");
  ExpectRun(check + "--user nobody", 1, "nobody may not enter " + folder.Path());
}

/// Log lines out of "SECOND LEVEL TEXT" ones.
std::string Lines(const std::string& texts) {
  std::istringstream stream(texts);
  std::string lines;
  for (std::string text; std::getline(stream, text);) {
    lines += "[2026-11-22 20:59:" + text.substr(0, 2) + ".000 UTC] [" + text[3] + "]" +
             text.substr(4) + "\n";
  }
  return lines;
}

const std::string kOldest = Lines(R"(10 I TMSCommMgr Start AppVer:1
11 D AChMgr SetUsedState ch:[1] used:[0]->[1]
11 D CommSvr Exe ch[1] TID:7
11 D CommSvr RqDatType TCPIP [7])");
const std::string kMiddle = Lines(R"(12 D TCPIPAUnit [192.0.2.1] [502][4]
12 D TCPIPAUnit [192.0.2.1] [503][5]
12 D TCPIPAUnit [192.0.2.1] [504][6]
12 D TCPIPAUnit [192.0.2.9] [502][9]
12 D TCPIPAUnit sendBytes [192.0.2.1][000100000006040300000002]
12 D TCPIPAUnit sendBytes [192.0.2.1][000100000006060300000002]
12 D CommSvr Busy ch[1]
12 D TCPIPAUnit Con err.  [192.0.2.9][-3])");
const std::string kNewest = Lines(R"(13 D TCPIPAUnit Con err.  [192.0.2.1][111]
13 I TCPIPAUnit Read dat err.[192.0.2.1] size[-1]
13 D TCPIPAUnit rcvBytes [192.0.2.1][00010000000506030203E8]
14 D AChMgr SetUsedState ch:[1] used:[1]->[0]
15 D 485ARq Rcv dat <C2:17> len:[0] status:[1])");
const std::string kRestart = Lines("17 I TMSCommMgr Start AppVer:1");

TEST(TamselctlLog, CopiesAreReadInOrderAndSummedUp) {
  const TempFolder card;
  const std::string log = card.Path("velmorahome/Log/LoggerCom.log");
  const std::string cut = "[2026-11-22 20:59:16.000 UTC] [D] CommS";
  ExpectRun(kLog + card.Path(), 1, "no LoggerCom.log in this folder");
  std::filesystem::create_directories(card.Path("velmorahome/Log"));
  WriteFile(log, kNewest + cut + kRestart + cut);
  WriteFile(log + ".2", kMiddle);
  WriteFile(log + ".10", kOldest);
  for (const std::string& places : {card.Path(), log + "*"}) {
    ExpectRun(kLog + places + " 2>&1 >/dev/null", 0, ": 2 cut or damaged lines left out");
    EXPECT_EQ(RunShell(kLog + places + " 2>/dev/null").output,
              kOldest + kMiddle + kNewest + kRestart);
  }
  ExpectRun("sed 's/^/LoggerCom.log /' " + log + ".10 | " + kLog + "-", 0, kOldest);
  const std::string summary = RunShell("env TZ=UTC " + kLog + "--summary " + card.Path()).output;
  EXPECT_TRUE(Contains(summary, "starts 2, of them without a stop before 1;")) << summary;
  EXPECT_TRUE(Contains(summary, "\n1               1      0       1     1        0      3 s"));
  EXPECT_TRUE(Contains(summary, R"(
1        4       192.0.2.1:502          1         0       1  2026-11-22 20:59:13  no answer in time, or reset 1
1        5       192.0.2.1:503          1         0       1  2026-11-22 20:59:13  connect refused 1
1        6       192.0.2.1:504          1         1       0
1        9       192.0.2.9:502          1         0       1  2026-11-22 20:59:12  connect timed out 1
2        17      RS485                  1         0       1  2026-11-22 20:59:15  no answer in time 1
)"));
  ExpectRun(kLog + "--summary - << END\n" + kRestart + "END", 0, "No line below I in 1 of 1 runs");
  for (const std::string filter :
       {"3 --level I", "2 --tag AChMgr", "1 --channel 2", "2 --device 9", "3 --device 5",
        "3 --since 2026-11-22T20:59:14Z", "1 --until 2026-11-22T20:59:10Z"}) {
    const std::string json = RunShell(kLog + filter.substr(2) + " --json " + card.Path()).output;
    EXPECT_EQ(CountText(json, "{\"time\":\"2026-11-22T20:59:1"), filter[0] - '0') << filter << json;
  }
}

TEST(TamselctlLog, FollowsAcrossRotationsWithoutLossOrDouble) {
  const TempFolder folder;
  const std::string log = folder.Path("LoggerCom.log");
  const std::string command = kLog + "-f " + folder.Path() + " 2>/dev/null | sed /:59:49/q";
  auto run = std::async(std::launch::async, [&] { return RunShell(command).output; });
  std::string all;
  for (int second = 10; second < 50; ++second) {
    const std::string line = Lines(std::to_string(second) + " I TMSCommMgr NotifyOutage");
    all += line;
    std::ofstream(log, std::ios::app) << line.substr(0, 30);
    SleepMs(second < 30 ? 30 : 0);
    std::ofstream(log, std::ios::app) << line.substr(30);
    if (second % 5 == 2) {
      RunShell("sh -c 'cd " + folder.Path() +
               "; for i in 9 8 7 6 5 4 3 2 1 0; do mv LoggerCom.log.$i "
               "LoggerCom.log.$((i + 1)); done; mv LoggerCom.log LoggerCom.log.1'");
    }
  }
  EXPECT_TRUE(WaitFor(15000, [&] {  // a tool whose reader has left sees that when it writes
    std::ofstream(log, std::ios::app) << kRestart;
    return run.wait_for(std::chrono::milliseconds(50)) == std::future_status::ready;
  }));
  EXPECT_EQ(run.get(), all);
}

}  // namespace
}  // namespace tmsc::test
