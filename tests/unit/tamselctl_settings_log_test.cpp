#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <future>
#include <nlohmann/json.hpp>
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

std::string Repeated(const std::string& text) {
  std::string all;
  for (int count = 0; count < 256; ++count) {
    all += text;
  }
  return all;
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
      {"<LogLevel>\xC2\x9B</LogLevel>", "LogLevel: \"\uFFFD\" is no number"},
      {"<LogLevel>6</LogLevel>", "LogLevel: 6 is not 0 to 5; 1 holds"},
      {"<ApiRetryCount>three</ApiRetryCount>", "\"three\" is no number, or too large for one; 3"},
      {"<ApiRetryCount>30s</ApiRetryCount>", "\"30s\" is read as 30"},
      {"<LogLevel>1<!-- x -->2</LogLevel>", "only the last part counts"},
      {size + "500K</LoggerComLogMaxFileSize>", "\"500K\" is read as 1 bytes"},
      {size + "010KB</LoggerComLogMaxFileSize>", "\"010KB\" is read as 8192 bytes"},
      {size + "500 KB</LoggerComLogMaxFileSize>", "\"500 KB\" is read as 1024 bytes"},
      {size + "1.5MB</LoggerComLogMaxFileSize>", "\"1.5MB\" is read as 1048576 bytes"},
      {"<LogLevel a='b'>1</LogLevel>", ":2:1: LogLevel: attributes are not read"},
      {"<LogLevel><![CDATA[2]]></LogLevel>", "LogLevel: a CDATA section is not read"},
      {"x<LogLevel>1</LogLevel>", "text between the keys is not read: x"},
      {Repeated("<a>") + Repeated("</a>"), "more than 256 elements within each other"},
      {"<SdcardPath> /tmp</SdcardPath>", "blanks or line ends around a path belong to it: \" /tmp"},
      {"<HealthFilePath>x</HealthFilePath>", "x is relative to the folder that the daemon"},
      {"<WatchdogFileUpdateInterval>0</WatchdogFileUpdateInterval>",
       "0 is not 1 to 2147483: touched"},
      {"<TcpReuseCheck>2</TcpReuseCheck>", "2 is not 0 to 1; 1 holds"},
      {size + "2GB</LoggerComLogMaxFileSize>", "10485760 bytes hold"},
      {"<ComSocketPath>/" + std::string(107, 'x') + "</ComSocketPath>", "108 bytes are more than"},
      {"<SdcardPath>/nonexistent</SdcardPath>", "/nonexistent does not exist"},
      {"<HealthFilePath>/dev/null/x</HealthFilePath>", "/dev/null is no folder"}};
  for (const auto& [text, mistake] : rows) {
    WriteFile(path, "<LoggerSetting>\n" + text + "\n</LoggerSetting>");
    ExpectRun(check, 1, mistake);
  }
  WriteFile(path,
            SettingsXml({{"LogLevel", "9"}, {"ApiRetryCount", "30s"}, {"SdcardPath", "/no"}}));
  const auto json = nlohmann::json::parse(RunShell(check + "--no-paths --json").output);
  const std::map<std::string, std::pair<nlohmann::json, const char*>> sources = {
      {"LogLevel", {1, "fallback"}},
      {"ApiRetryCount", {30, "file"}},
      {"ApiRetryInterval", {100, "default"}},
      {"SdcardPath", {"/no", "file"}},
      {"HealthFilePath", {nullptr, "default"}}};
  std::size_t found = 0;
  for (const auto& setting : json.at("settings")) {
    if (const auto source = sources.find(setting.at("key")); source != sources.end()) {
      ++found;
      EXPECT_EQ(setting.at("value"), source->second.first) << setting;
      EXPECT_EQ(setting.at("source"), source->second.second) << setting;
    }
  }
  EXPECT_EQ(found, sources.size());
  EXPECT_EQ(json.at("mistakes").size(), 2U) << json;
  EXPECT_EQ(json.at("poll").at("week_log_level"), 2) << json;
  EXPECT_EQ(json.at("poll").at("week_log_level_all_silent"), 3) << json;
  ExpectRun(check + "--no-paths", 1, "every 5 s, 10 registers each, with 12 copies of ");
  ExpectRun(TAMSELCTL_PATH " settings --no-paths --every 90m /dev/null", 1, "every 1 h 30 min");
  WriteFile(path, "<Settings/>");
  ExpectRun(check, 1, ":1:1: the root element is Settings and not LoggerSetting");
  std::filesystem::create_directory(folder.Path("card"));
  WriteFile(path, SettingsXml(SettingsIn(folder, {{"LoggerComLogMaxFileSize", "5MB"},
                                                  {"HealthFilePath", folder.Path("new/health")}})));
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
12 D TCPIPAUnit [192.0.2.9  ] [502][9]
12 D TCPIPAUnit sendBytes [192.0.2.1][000100000006040300000002]
12 D TCPIPAUnit sendBytes [192.0.2.1][000100000006060300000002]
12 D CommSvr Busy ch[1]
12 D TCPIPAUnit Con err.  [192.0.2.9  ][-3])");
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
  ASSERT_EQ(::mkfifo((log + ".3").c_str(), 0600), 0);
  ExpectRun(kLog + card.Path(), 1, log + ".3: no regular file");
}

TEST(TamselctlLog, EachKindOfTroubleIsCountedWhereItBelongs) {
  const TempFolder folder;
  const std::string log = folder.Path("LoggerCom.log");
  WriteFile(log, Lines(R"(10 I TMSCommMgr Start AppVer:1
10 W CommSvr Exec read err... ch[9]
10 W Wdog status [256]
11 D AChMgr SetUsedState ch:[1] used:[0]->[1]
11 D CommSvr Exe ch[1] TID:7
11 D CommSvr RqDatType 485 [1] ch:1
11 D AChMgr SetUsedState ch:[2] used:[0]->[1]
11 D CommSvr Exe ch[2] TID:8
11 D CommSvr RqDatType 485 [1] ch:2
11 D 485ARq vlm_485_op[1] <C2>
11 D 485ARq vlm_485_op[0] <C2>
12 D 485ARq vlm_485_setCFlg [0] <C2>
12 E 485ARq vlm_485_setCFlg fail.
13 D AChMgr SetUsedState ch:[2] used:[1]->[0]
13 D 485ARq vlm_485_op[1] <C1>
14 D AChMgr SetUsedState ch:[1] used:[1]->[0]
15 D AChMgr SetUsedState ch:[2] used:[0]->[1]
15 D CommSvr RqDatType 485 [1] ch:2
15 D AChMgr SetUsedState ch:[1] used:[0]->[1]
15 D CommSvr RqDatType 485 [1] ch:1
16 D 485ARq Rcv dat <C2:7> len:[8] status:[0]
16 D 485ARq Rcv dat [0703040001]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[2]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[3]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[4]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[5]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[5]
17 D 485ARq Rcv dat <C2:7> len:[0] status:[77]
18 I TMSCommMgr NotifyOutage
19 I TMSCommMgr NotifyOutageRecovery
19 I TMSCommMgr NotifyOutage
20 W LogFlOut Card is gone
21 W LogFlOut Card is back
21 W LogFlOut Log lines lost while the card was gone [41]
22 D AChMgr SetUsedState ch:[1] used:[1]->[0]
30 I TMSCommMgr Start AppVer:1
31 D AChMgr SetUsedState ch:[3] used:[0]->[1]
31 D CommSvr Exe ch[3] TID:7
31 D CommSvr RqDatType TCPIP [7]
32 D TCPIPAUnit [192.0.2.5] [502][5]
32 D TCPIPAUnit Con err.  [192.0.2.5][113]
33 D AChMgr SetUsedState ch:[1] used:[0]->[1]
33 D CommSvr Exe ch[1] TID:8
33 D CommSvr RqDatType TCPIP [8]
34 D TCPIPAUnit [192.0.2.5] [502][5]
34 D TCPIPAUnit [192.0.2.6] [502][6]
34 D TCPIPAUnit sendBytes [192.0.2.5][000100000006050300000002]
35 I TCPIPAUnit Rcv dat size too large.[192.0.2.5]
35 W TCPIPAUnit Port err. dev[8] port[0]
)"));
  const auto json = nlohmann::json::parse(RunShell(kLog + "--summary --json " + log).output);
  const nlohmann::json counts = {{"starts", 2},
                                 {"starts_without_stop", 1},
                                 {"outages", 2},
                                 {"recoveries", 1},
                                 {"card_gone", 1},
                                 {"card_back", 1},
                                 {"lines_lost", 41},
                                 {"exchanges_of_inferred_channel", 1},
                                 {"exchanges_without_end", 1},
                                 {"trouble", {{"watchdog file not touched", 1}}},
                                 {"clients_refused", {{"channel not 1 to 3", 1}}}};
  for (const auto& [key, count] : counts.items()) {
    EXPECT_EQ(json.at(key), count) << key;
  }
  const std::string text = RunShell(kLog + "--summary " + log).output;
  for (const char* const line :
       {"\n1               3      2       1     0        1      7 s       1  port not opened 1\n",
        "\n2               2      2       0     0        1      2 s       1  device flags not "
        "taken 1\n",
        "\n2        7       RS485                  7         1       6  2026-11-22 20:59:17  "
        "not its answer 2, answer too long 1, line error 1, port gone 1, status 77 1\n",
        "\n3        5       192.0.2.5:502          2         0       2  2026-11-22 20:59:35  "
        "answer too long 1, unreachable 1\n"}) {
    EXPECT_TRUE(Contains(text, line)) << line << text;
  }
  ExpectRun(kLog + "--json --channel 1 --device 8 " + log, 0, "[1,3],\"devices\":[8]}\n");
  ExpectRun(kLog + "--json --channel 2 --device 7 " + log, 0,
            "\"message\":\"Rcv dat [0703040001]\",\"channels\":[2],\"devices\":[7]}\n");
}

TEST(TamselctlLog, LinesAreTakenAsTheyAreMeant) {
  const std::string line =
      "[2026-07-25 12:03:04.250 UTC] [W] Wdog a\tb\033[31m\xC2\x9B\xC3\xA4\xC3\xFF\r\n";
  const TempFolder folder;
  const std::string log = folder.Path("log");
  WriteFile(log, "log lines lost on this console [3]\n[2026-02-30 12:03:04.250 UTC] [W] Wdog x\n" +
                     std::string(70000, 'x') + "\n" + line);
  const std::string warn =
      "[2026-07-25 12:03:04.250 UTC] [W] Wdog a\tb\uFFFD[31m\uFFFD\u00E4\uFFFD\uFFFD\n";
  const std::string in_summer = "env TZ=CET-1CEST,M3.5.0,M10.5.0/3 " + kLog + log;
  const std::pair<const char*, bool> filters[] = {{" --since '2026-07-25 14:03:04.2'", true},
                                                  {" --since '2026-07-25T14:03:04.3'", false},
                                                  {" --until 2026-07-25T12:03:04.25Z", true},
                                                  {" --until 2026-07-25T12:03:04.2Z", false},
                                                  {" --since 36500d", true},
                                                  {" --since 2026-07-26", false},
                                                  {" --level 3", true},
                                                  {" --level 4", false},
                                                  {" --level warn --tag Wdog", true},
                                                  {" --tag Wdo", false}};
  for (const auto& [filter, is_shown] : filters) {
    ExpectRun(in_summer + filter, 0, is_shown ? warn : "no line is in the time or of the kind");
    ExpectRun(in_summer + filter, 0, "2 cut or damaged lines left out\n");
  }
  ExpectRun(kLog + "--json " + log, 0, "\"a\\tb\\u001b[31m\uFFFD\u00E4\uFFFD\uFFFD\"}\n");
  ExpectRun(kLog + "--tag Wdog " + log, 0, warn);  // a tag takes one word
  ExpectRun(in_summer + " --summary", 0, "from 2026-07-25 14:03:04 to 2026-07-25 14:03:04, 2 cut");
  ExpectRun(in_summer + " --since 2026-07-25T14:03:04+02:00", 2, "neither a moment nor a length");
}

TEST(TamselctlLog, AFollowerIsToldThatLinesComeLate) {
  const TempFolder folder;
  const std::string settings = folder.Path("settings.xml");
  std::filesystem::create_directories(folder.Path("velmorahome/Log"));
  WriteFile(folder.Path("velmorahome/Log/LoggerCom.log"), kRestart);
  const std::string follow =
      "timeout --preserve-status -s INT 2 " + kLog + "-f --settings " + settings;
  for (const char* buffered : {"0", "1"}) {
    WriteFile(settings, SettingsXml({{"SdcardPath", folder.Path()},
                                     {"EnableLogBufferedIO", buffered},
                                     {"LoggerLogMaxBufferedSize", "2000"}}));
    const ShellResult run = RunShell(follow);
    EXPECT_EQ(run.exit_code, 130);
    EXPECT_TRUE(Contains(run.output, kRestart)) << run.output;
    EXPECT_EQ(Contains(run.output, "when 2000 bytes of them are there, at the latest after 5 min"),
              *buffered == '1')
        << run.output;
  }
}

TEST(TamselctlLog, FollowsAcrossRotationsWithoutLossOrDouble) {
  const TempFolder folder;
  const std::string log = folder.Path("LoggerCom.log");
  const std::string command = kLog + "-f " + folder.Path() + " 2>/dev/null | sed /:59:49/q";
  std::string all = Lines("10 I TMSCommMgr NotifyOutage");
  WriteFile(log + ".1", all);  // the first look falls into a rotation
  auto run = std::async(std::launch::async, [&] { return RunShell(command).output; });
  SleepMs(300);
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
