#include <grp.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <regex>
#include <sstream>

#include "request_builder.h"
#include "support/fake_daemon.h"
#include "support/health_file.h"
#include "support/shell.h"

namespace tmsc {
namespace {

const std::string kRequest = std::string(TAMSELCTL_PATH) + " request ";
const std::string kTcp = "--channel 2 --device 5=192.0.2.7:502 ";
const std::string kRead = kTcp + "--read-holding 0x10,2 ";
const std::string kRtu = "--channel 2 --device 5 --baud 19200 ";
const ResponseReceiveData kBusy{{}, {10, {}}};
const ResponseReceiveData kGoodAnswer = Answer(0, "0001 0000 0007 05 0304 1234 FFFF");

void ExpectRun(const std::string& command, int exit_code, const std::string& text) {
  const test::ShellResult run = test::RunShell(command);
  EXPECT_TRUE(run.exit_code == exit_code && test::Contains(run.output, text))
      << command << " gives " << run.exit_code << ": " << run.output << ", not " << text;
}

// Answers each request with the next response, or once more with the last.
FakeDaemon::Script Answering(const std::vector<ResponseReceiveData>& responses) {
  return [responses, next = std::size_t{0}](int connection) mutable {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    FakeDaemon::Send(connection, responses[std::min(next++, responses.size() - 1)]);
  };
}

void ExpectOf(const std::vector<ResponseReceiveData>& responses, const std::string& arguments,
              int exit_code, const std::string& text) {
  const FakeDaemon daemon(Answering(responses));
  ExpectRun(kRequest + arguments + " --socket " + daemon.Path(), exit_code, text);
}

TEST(Tamselctl, ExitStatusAndTextFollowTheResponse) {
  ExpectOf({kGoodAnswer}, kRead, 0, "ok      0001000000070503041234FFFF\n      ");
  ExpectOf({Answer(0, "0001 0000 0003 05 8302")}, kRead, 5, "exception 2: illegal data addr");
  ExpectOf({Answer(0, "0002 0000 0007 05 0304 1234 FFFF")}, kRead, 5, "wrong transaction");
  ExpectOf({Answer(0, "0001 0000 0007 06 0304 1234 FFFF")}, kRead, 5, "misfit: wrong unit");
  ExpectOf({Answer(0, "0001 0000 0007 05 0404 1234 FFFF")}, kRead, 5, "misfit: wrong function");
  ExpectOf({Answer(0, "0001 0000 0007 05 0302 1234 FFFF")}, kRead, 5, "not the registers asked");
  ExpectOf({Answer(0, "0001 0000 0007 05")}, kRead, 5, "misfit: no Modbus/TCP frame");
  ExpectOf({Answer(52, "")}, kRead, 5, "connect failed + send or receive failed + unknown sta");
  ExpectOf({Answer(0, "")}, kRead, 5, "no answer");
  ExpectOf({Answer(0, "", -1)}, kRead, 5, "broken slot");
  ExpectOf({Answer(0, "", 439)}, kRead, 5, "broken slot");
  ExpectOf({Answer(0, "AB")}, kTcp + "--frame 11", 0, "ok      AB");
  ExpectOf({kBusy}, kRead, 4, "channel 2: the channel is busy; --busy-wait 5000 tries again");
  ExpectOf({kBusy, kGoodAnswer}, kRead + "--busy-wait 5000", 0, "registers: 16=4660 17=65535\n");
  ExpectOf({kBusy}, kRead + "--busy-wait 60", 4, "busy");
  ExpectOf({{{}, {99, {}}}}, kRead, 6, "unknown status 99");
  ExpectOf({kBusy}, kRead + "--json", 4,
           R"("status":10,"error":"the channel is busy","devices":[]})");
  ExpectOf({Answer(0, "0001 0000 0005 05 0102 0500")}, kTcp + "--read-coils 0,3", 5, "the bits as");
  ExpectOf({Answer(0, "0001 0000 0005 05 0202 0502")}, kTcp + "--read-discrete 0,10", 0,
           "bits: 0=1 1=0 2=1 3=0 4=0 5=0 6=0 7=0 8=0 9=1\n");
  ExpectOf({Answer(0, "0001 0000 0006 05 050007FF00")}, kTcp + "--write-coil 7,1", 0, "ok");
  ExpectOf({Answer(0, "0001 0000 0006 05 0500070000")}, kTcp + "--write-coil 7,1", 5,
           "not the coils");
  ExpectOf({Answer(0, "0001 0000 0006 05 0F00070002")}, kTcp + "--write-coils 7,1", 5,
           "the coils wr");
  const std::pair<const char*, const char*> types[] = {{"i16", "16=4660 17=-1"},
                                                       {"u32", "16=305463295"},
                                                       {"u32 --word-order little", "16=4294906420"},
                                                       {"i32 --word-order little", "16=-60876"},
                                                       {"hex", "16=1234 17=FFFF"},
                                                       {"f32", "16=5.7113525e-28"},
                                                       {"string", "16=.4..\n"}};
  for (const auto& [type, values] : types) {
    ExpectOf({kGoodAnswer}, kRead + "--type " + type + " ", 0, "values: " + std::string(values));
  }

  ExpectOf({Answer(0, "0001 0000 000B 05 0308 00000001 00000002")},
           kTcp + "--read-holding 7,4 --type u32", 0, "values: 7=1 9=2\n");
  const std::pair<const char*, const char*> values[] = {{"f32 3DCCCCCD", "0.1\n"},
                                                        {"f32 7FC00000", "no number\n"},
                                                        {"f32 FF800000", "no number\n"},
                                                        {"string 41200042", "A\n"},
                                                        {"string 42432020", "BC\n"}};
  for (const auto& [given, value] : values) {
    const std::string text = given;
    const std::size_t blank = text.find(' ');
    ExpectOf({Answer(0, "0001 0000 0007 05 0304" + text.substr(blank))},
             kRead + "--type " + text.substr(0, blank), 0, "values: 16=" + std::string(value));
  }
  ExpectOf({Answer(0, "0001 0000 0007 05 0304 43004142")},
           kRead + "--type string --word-order little --json", 0,
           R"("start":16,"registers":[17152,16706],"values":["ABC"])");
  ExpectOf({Answer(0, "0001 0000 0003 05 8302")}, kRead + "--json", 5,
           R"("code":0,"exception":2,)");
  ExpectRun(kRequest + kRead + "--json --socket /nonexistent/socket", 3,
            R"("exit":3,"outcome":"not_reachable","status":null,"error":"no daemon can be)");

  ExpectOf({Answer(1, "")}, kRtu + "--read-input 0,1 --format json", 5,
           R"("19200 8N1","ok":false,"st)");
  ExpectOf({Answer(0, "05 10 0100 0001 01B1")}, kRtu + "--write-registers 256,1,2", 5,
           "registers written");
  ExpectOf({Answer(0, "AB0102")}, kRtu + "--frame 11", 0, "answered  AB0102");
  ExpectOf({Answer(4, "")}, kRtu + "--frame 0011 --broadcast", 5, "port gone");
  ExpectOf({Answer(0, "")}, kRtu + "--frame 0011 --broadcast", 0, "sent");

  const std::string raw = kRtu + "--crc --frame ";
  ExpectOf({Answer(0, "06 0304 1234 FFFF C9F5")}, raw + "050300100002", 5, "answer of device 6");
  ExpectOf({Answer(0, "AB FEFF")}, raw + "F70333", 5, "misfit: no Modbus RTU frame");
  // Not Modbus: one byte, a reserved address, and what are no function codes.
  ExpectOf({Answer(0, "FFFF")}, raw + "11", 5, "wrong CRC");
  for (const char* frame : {"11", "F80333", "110033", "118333"}) {
    ExpectOf({Answer(0, "AB FEFF")}, raw + frame, 0, "answered  AB");
  }
}

// Digits stand at the offset before them; everything else in the record is 0.
void ExpectRecord(const std::string& arguments, const std::string& contents) {
  const bool is_rtu = test::Contains(arguments, "--baud");
  std::vector<byte> expected(is_rtu ? 4285 : 4966);
  std::istringstream words((is_rtu ? "12:01 " : "12:02 ") + ("8:03 64:03 " + contents));
  std::size_t offset = 0;
  char colon = 0;
  for (std::string digits; words >> offset >> colon >> digits;) {
    const std::vector<byte> bytes = FromHex(digits);
    std::copy(bytes.begin(), bytes.end(), expected.data() + offset);
  }
  const FakeDaemon daemon([&](int connection) {
    EXPECT_EQ(FakeDaemon::ReadOnce(connection, 10000), expected) << arguments;
  });
  ExpectRun(kRequest + "--channel 3 " + arguments + " --socket " + daemon.Path(), 6,
            "without an answer");
}

TEST(Tamselctl, SendsTheRecordAskedInOneWrite) {
  const std::string tcp = "--device 5=192.0.2.7:503 --timeout 0x100 --device 9=192.0.2.1:502 ";
  const std::string places =
      "68:053139322E302E322E37 87:F701 95:0001 97:093139322E302E322E31 116:F601 124:0001 ";
  ExpectRecord(tcp + "--read-holding 0x10,2",
               places + "967:050C00000100000006050300100002 1096:090C00000200000006090300100002");
  ExpectRecord(tcp + "--frame 9:FF --frame 5:'0a 0B'", places + "967:0502000A0B 1096:090100FF");
  ExpectRecord("--device 5=192.0.2.7 --frame 01",
               "68:053139322E302E322E37 87:F601 95:E803 967:05010001");
  ExpectRecord(tcp + "--frame 0c", places + "967:0501000C 1096:0901000C");
  const std::string both = "--device 5,9=192.0.2.7:503 --timeout 0x100 ";
  ExpectRecord(
      both + "--unit 101-102 --write-coils 3,1,0,1,1,1,1,1,1,1",
      "68:053139322E302E322E37 87:F701 95:0001 97:093139322E302E322E37 116:F701 124:0001 "
      "967:050F00000100000009650F0003000902FD01 1096:090F00000200000009660F0003000902FD01");
  const std::pair<const char*, const char*> writes[] = {
      {"-1,-32768", "05110000010000000B05100001000204FFFF8000"},
      {"-2,0x10000 --type i32 --word-order little",
       "05150000010000000F05100001000408FFFEFFFF00000001"},
      {"A,B --type string", "05110000010000000B05100001000204412C4200"},
      {"1.5,-0.1 --type f32", "05150000010000000F051000010004083FC00000BDCCCCCD"},
      {"ABC --type string --word-order little", "05110000010000000B0510000100020443004142"},
      {"0a0B,ff --type hex", "05110000010000000B051000010002040A0B00FF"}};
  for (const auto& [values, data] : writes) {
    ExpectRecord("--device 5=192.0.2.7:503 --write-registers 1," + std::string(values),
                 "68:053139322E302E322E37 87:F701 95:E803 967:" + std::string(data));
  }
  const std::string rtu = "--device 5 --baud ";
  ExpectRecord(rtu + "1200 --read-holding 0x10,2", "68:000500E803 286:050800050300100002C44A");
  ExpectRecord(rtu + "921600 --line 7O2 --silence 20 --wait 255 --unit 255 --read-input 16,2",
               "68:0A050BE8030014FF 286:050800FF040010000265D0");
  ExpectRecord(rtu + "19200 --line 8E1 --delimiter 0x0D,2 --write-registers 256,65535,0x102",
               "68:040501E8030D02 286:050D0005100100000204FFFF01026B7A");
  ExpectRecord(rtu + "9600 --delimiter 10 --broadcast --write-registers 256,7",
               "68:030500E8030A 286:050B00001001000001020007FAC2");
  ExpectRecord(rtu + "9600 --timeout 300 --crc --frame 112233",
               "68:0305002C01 286:0505001122337970");
  ExpectRecord(rtu + "9600 --write-registers 256$(yes ,0 | head -27 | tr -d '\\n')",
               "68:030500E803 286:053F0005100100001B36 350:B994");
}

TEST(Tamselctl, WrongUsageIsRefusedBeforeAnythingIsSent) {
  const std::string one = "--channel 1 --device 1=192.0.2.1:502 ";
  const std::string most = "--write-registers 65480$(yes ,7 | head -56 | tr -d '\\n')";
  ExpectRun(kRequest + "--socket /nonexistent/socket " + one + most, 3, "no daemon");
  const std::pair<std::string, const char*> cases[] = {
      {one + most + ",7", "1 to 56 registers"},
      {one + "--write-registers 65535,1,2", "none above 65535"},
      {one + "--write-registers 1,1e39 --type f32", "of the --type"},
      {one + "--write-coil 7,1,1", "7,1,1 is not COIL,0|1"},
      {one + "--write-coils 7,2", "7,2 is not START"},
      {one + "--read-coils 0,2001", "1 to 2000 bits"},
      {one + "--unit 9-5 --read-coils 1,1", "range of 0 to 255"},
      {"--channel 1 --device 1-3,2=192.0.2.1:502 --read-coils 1,1", "range of 1 to 31"},
      {"--channel 4 --device 1=192.0.2.1:502 --frame 01", "4 is not a number of 1 to 3"},
      {"--channel 1 --device 1=192.0.2.1: --frame 01", "1=192.0.2.1: is not ADDRESS=IP[:PORT]"},
      {"--chanel 1 --device 1=192.0.2.1 --frame 01",
       "--chanel is no option of request; did you mean --channel?\n"},
      {one + "--read-hold 0,2",
       "--read-hold is no option of request; did you mean --read-holding?"},
      {one + "--read-coils 0,2 -x", "-x is no option of request\n"},
      {one + "--device '2=192.0.2.2 :502' --frame 01", "192.0.2.2 \" is not an IPv4 address"},
      {one + "--frame 012", "012 is not HEX"},
      {one + "--frame 2:01", "no device 2"},
      {one + "--frame 01 --frame 02", "a second frame for device 1"},
      {one + "--frame 01 --unit 3", "sent as they are"},
      {one + "--read-holding 0,126", "1 to 125 registers"},
      {one + "--read-holding 65535,2", "none above 65535"},
      {one + "--write-registers 1,65536", "is not START,VALUE"},
      {one + "--device 2 --frame 01", "do not mix"},
      {one + "--baud 9600 --frame 01", "have no speed"},
      {one + "--read-holding 1,3 --type i32", "takes 2 registers, and COUNT is 3"},
      {one + "--read-coils 1,3 --type i32", "coils and discrete inputs have none"},
      {one + "--write-registers 1,-32769", "is not START,VALUE"},
      {one + "--unit 1-2 --read-coils 1,1", "2 units for 1 devices"},
      {one + "--watch 0 --read-coils 1,1", "0 is no time"},
      {one + "--count 1 --read-coils 1,1", "--count requires --watch"},
      {"--device 1-32=192.0.2.1:502 --channel 1 --read-coils 1,1", "range of 1 to 31"},
      {one + "--line 8E1 --frame 01", "--line requires --baud"},
      {one + "--frame ''", "the argument behind --frame is empty"},
      {"--channel 1 --device 1 --frame 01", "needs --baud"},
      {"--channel 1 --device 1 --baud 9601 --frame 01", "9601 is not one of 1200, 2400, 4800"},
      {kRtu + "--delimiter 1,256 --frame 01", "1,256 is not BYTE[,AFTER]"},
      {kRtu + "--frame " + std::string(126, '1') + " --crc", "a frame of 65 bytes is longer"},
      {kRtu + "--frame 0001", "needs it"},
      {kRtu + "--frame 0101 --broadcast", "is not 0"},
      {kRtu + "--device 6 --frame 00 --broadcast", "one --device is enough"},
      {kRtu + "--read-input 0,1 --broadcast", "nothing can be read"},
      {kRtu + "--read-input 0,1 --crc", "only --frame"},
  };
  for (const auto& [arguments, text] : cases) {
    ExpectRun(kRequest + "--socket /nonexistent/socket " + arguments, 2, text);
  }
  ExpectRun(TAMSELCTL_PATH, 2, "A subcommand is required");
  ExpectRun(TAMSELCTL_PATH " ''", 2, "the argument behind tamselctl is empty");
  ExpectRun(TAMSELCTL_PATH " requst", 2, "requst is no command; did you mean request?\n");
  ExpectRun(TAMSELCTL_PATH " rquets", 2, "rquets is no command\n");
  ExpectRun(TAMSELCTL_PATH " health --fail", 2, "of health; did you mean --failing?\n");
  ExpectRun(TAMSELCTL_PATH " --versoin", 2, "--versoin is no option; did you mean --version?\n");
}

TEST(Tamselctl, RepeatsARequestAndCounts) {
  ExpectOf(
      {kGoodAnswer, kBusy, Answer(0, "")}, kRead + "--watch 0.01 --count 4 --json", 5,
      R"("devices":[{"channel":2,"device":5,"asked":3,"answered":1,"failed":2,"least_ms":null)");
  const FakeDaemon daemon([next = 0](int connection) mutable {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    std::this_thread::sleep_for(std::chrono::milliseconds(next++ % 2 == 0 ? 0 : 100 * next));
    FakeDaemon::Send(connection, kGoodAnswer);
  });
  const auto run = test::RunShell(kRequest + kRead + "--watch 10ms --count 6 --json --socket " +
                                  daemon.Path() + " | tail -1");
  const auto times = nlohmann::json::parse(run.output).at("summary").at("requests");
  EXPECT_EQ(times.at("answered"), 6) << run.output;  // after 0, 200, 0, 400, 0 and 600 ms
  EXPECT_LT(times.at("median_ms"), 200) << run.output;
  EXPECT_GE(times.at("p99_ms"), 600) << run.output;
}

TEST(Tamselctl, ARequestThatLastsATimeOutTooLongNamesTheSetting) {
  const test::TempFolder folder;
  const std::string health = folder.Path("health");
  test::HealthFile file;
  file.Write(health);
  const FakeDaemon daemon([&](int connection) {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    auto& device = file.Add(2, TAMSEL_HEALTH_TCPIP, 5, TAMSEL_CAUSE_ANSWERED);
    ++device.response_count;
    device.response_last_us = 100;
    file.Write(health);
    FakeDaemon::Send(connection, kGoodAnswer);
  });
  test::WriteFile(folder.Path("settings"), test::SettingsXml({{"ComSocketPath", daemon.Path()},
                                                              {"HealthFilePath", health}}));
  const std::string request = kRequest + kRead + "--settings " + folder.Path("settings");
  const std::string hint = "TcpDrainTimeout in its settings";
  ExpectRun(request + " --timeout 100 --watch 10ms --count 2", 0, hint);
  EXPECT_EQ(test::CountText(test::RunShell(request + " --timeout 100 --watch 1ms --count 2").output,
                            hint),
            1);
  EXPECT_FALSE(test::Contains(test::RunShell(request + " --timeout 5000").output, hint));
}

TEST(Tamselctl, AnExceptionIsAnAnswerOfAScan) {
  for (const auto& [form, text] :
       {std::pair("", "2: illegal data address\n1 of 2 answer"),
        {" --json", R"("ok":false,"exit":6,"error":"the RS485 port could not be opened")"}}) {
    const FakeDaemon daemon(Answering({Answer(0, "05 8302 8130"), {}, {{}, {8, {}}}}));
    ExpectRun(std::string(TAMSELCTL_PATH " scan --channel 2 --baud 9600 --unit 5-9 --socket ") +
                  daemon.Path() + form,
              6, text);
  }
}

// Ends the program at the other end of the connection.
void KillPeer(int connection, int number) {
  ucred client{};
  socklen_t size = sizeof(client);
  ASSERT_EQ(::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &client, &size), 0);
  ::kill(client.pid, number);
}

TEST(Tamselctl, AnInterruptedScanTellsWhatItHas) {
  ::signal(SIGINT, SIG_DFL);  // as at a terminal, whatever has started the test
  const FakeDaemon daemon([is_first = true](int connection) mutable {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    if (std::exchange(is_first, false)) {
      FakeDaemon::Send(connection, Answer(0, "05 8302 8130"));
    } else {
      KillPeer(connection, SIGINT);
      FakeDaemon::ReadOnce(connection, 1);
    }
  });
  ExpectRun(
      TAMSELCTL_PATH " scan --channel 2 --baud 9600 --unit 5-9 --json --socket " + daemon.Path(),
      130, R"("complete":false,"asked":1,"answers":1,)");
}

TEST(Tamselctl, OnATerminalThePictureIsColouredAndRedrawnInPlace) {
  const test::TempFolder folder;
  const std::string file = folder.Path("health");
  test::HealthFile().Write(file);
  const auto on_terminal = [](const std::string& command) {
    return test::RunShell("env -u NO_COLOR TERM=xterm script -qec \"stty rows 4 cols 80; " +
                          command + "\" /dev/null < /dev/null")
        .output;
  };
  const std::string health = TAMSELCTL_PATH " health " + file;
  EXPECT_TRUE(test::Contains(on_terminal(health), "\033[32mrunning for 1 h\033[0m"));
  EXPECT_FALSE(test::Contains(on_terminal("NO_COLOR=1 " + health), "\033[3"));
  const std::string watch = on_terminal("timeout -s INT 2 " + health + " --watch 100ms");
  const std::size_t first = watch.find("\033[H");
  const std::size_t second = watch.find("\033[H", first + 1);
  ASSERT_NE(second, std::string::npos) << watch;
  EXPECT_EQ(test::CountText(watch.substr(first, second - first), "\n"), 3) << watch;
}

// What a terminal of 80 columns and 24 rows shows.
TEST(Tamselctl, AScreenShowsWhoAndWhyAndCountsTheRest) {
  const test::TempFolder folder;
  test::HealthFile file;
  for (int address = 1; address <= 31; ++address) {
    file.Add(1, TAMSEL_HEALTH_TCPIP, address, TAMSEL_CAUSE_ANSWERED);
    file.Add(1, TAMSEL_HEALTH_TCPIP, address, TAMSEL_CAUSE_CONNECTION_IN_USE);
  }
  file.Write(folder.Path("health"));
  test::WriteFile(folder.Path("site"),
                  R"({"buses": [{"channel": 1, "devices": [{"address": 1, "ip": "192.0.2.1",
                      "name": "Zähler of the string inverter at the north roof"}]}]})");
  const auto screen = [&folder](const std::string& arguments) {
    const std::string text =
        test::RunShell(
            "env NO_COLOR=1 TERM=xterm script -qec \"stty rows 24 cols 80; " TAMSELCTL_PATH
            " health " +
            folder.Path("health") + " --watch --count 1" + arguments + "\" /dev/null < /dev/null")
            .output;
    return std::regex_replace(text, std::regex("\033\\[[0-9]*[A-Za-z]|\r"), "");
  };
  const std::string plain = screen("");
  EXPECT_TRUE(test::Contains(plain, "fails for 2 h  connection in use by another exchange\n"))
      << plain;
  EXPECT_FALSE(test::Contains(plain, "place")) << plain;
  EXPECT_TRUE(test::Contains(plain, "\n… and 14 more\n")) << plain;
  EXPECT_EQ(test::CountText(plain, "\n"), 23) << plain;
  const std::string named = screen(" --site " + folder.Path("site"));
  EXPECT_TRUE(test::Contains(named, "1  Zähler of the st")) << named;
  EXPECT_TRUE(test::Contains(named, "…  fails for 2 h  connection in use")) << named;
  std::istringstream lines(named);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_LE(
        std::count_if(line.begin(), line.end(), [](char byte) { return (byte & 0xC0) != 0x80; }),
        80)
        << line;
  }
}

void ExpectSite(const std::string& text, int exit_code, const std::string& words) {
  const test::TempFolder folder;
  test::WriteFile(folder.Path("site"), text);
  ExpectRun(TAMSELCTL_PATH " site " + folder.Path("site"), exit_code, words);
}

TEST(Tamselctl, SiteFileIsCheckedToTheCharacter) {
  const std::string example = test::ReadFile(TAMSEL_DOCS_DIR "/../packaging/site.json");
  ExpectSite(example, 0, "192.0.2.9:502 unit 101  Inverter 101  inverter-101  ");
  const char* const cases[][3] = {
      // what stands in the example, in its place, what follows
      {"\"kinds\": {", "\"kinds\": {,", "site:3:13: syntax error"},
      {"\"scale\": 0.1,", "\"scal\": 0.1,",
       ":6:105: unknown key \"scal\" in a register; did you mean"},
      {"\"start\": 30", "\"start\": -1", ":5:55: \"start\" is not a whole number of 0 to 65535"},
      {"\"start\": 30", "\"start\": 65535", ":5:55: the value ends behind register 65535"},
      {"19200", "19201", ":16:62: \"baud\" is not one of 1200"},
      {"\"address\": 17", "\"address\": 16", ":19:9: doubled device address 16"},
      {"\"unit_id\": 101", "\"unit_id\": 1", ":26:9: doubled device: unit 1 there is \"Meter\""},
      {"\"192.0.2.9\", \"kind\"", "\"192.0.2\", \"kind\"", ":25:47: \"ip\" is not one of"},
      {"\"kind\": \"meter\"", "\"kind\": \"metre\"", "; did you mean \"meter\"?"},
      {"\"kind\": \"meter\"", "\"kind\": \"meter\", \"kind\": 1", "doubled key \"kind\""},
      {"\"channel\": 3", "\"channel\": 1, \"baud\": 9600", ":22:5: channel 1 has a bus with"},
      {"\"Inverter 17\"", "\"INVERTER 16\"", ":19:9: doubled device name"},
      {"\"energy today\"", "\"Power\"", ":6:7: doubled register \"Power\" of \"inverter\""},
      {"\"scale\": 0.1,", "\"scale\": 0.0,", ":6:114: \"scale\" is not a number other than 0"},
      {"\"timeout\": 1000", "\"line\": \"8E1\"", ":23:55: \"line\" stands with \"baud\" only"},
      {"\"Meter\",", "\"Zähler\", \"x\": 1,", ":25:28: unknown key \"x\" in a device\n"},
      {"\"Meter\"", "\"a\\n\"", ":25:18: \"name\" is not a text of printable characters"},
      {"\"Meter\"", "\"a\xC2\x9B\"", ":25:18: \"name\" is not a text of printable characters"},
      {"\"Meter\",", "\"Meter\", \"\xC2\x9B\": 1,", "unknown key \"\uFFFD\" in a device"},
      {"\"Meter\"", "\"All\"", ":25:18: \"All\" cannot be a name"},
  };
  for (const auto& [from, to, mistake] : cases) {
    std::string text = example;
    const std::size_t at = text.find(from);
    ExpectSite(text.replace(at, std::strlen(from), to), 2, mistake);
  }
  ExpectSite(std::string(100000, '['), 2, "site:1:21: nested too deeply");
  ExpectRun(TAMSELCTL_PATH " site /nonexistent", 2, "cannot be read: No such file");
}

TEST(Tamselctl, ShellsCompleteWhatTheParserTakes) {
  const std::string complete = "bash -c '. <(" TAMSELCTL_PATH
                               " completion bash); COMP_WORDS=(tamselctl \"$@\"); COMP_CWORD=$#;"
                               "_tamselctl; echo ${COMPREPLY[@]}' - ";
  ExpectRun(complete + "scan --ga", 0, "--gateway\n");
  ExpectRun(complete + "request --format ''", 0, "table json\n");
  ExpectRun(complete + "site /proc/versio", 0, "/proc/version\n");
}

TEST(Tamselctl, WhoIsNotInTheGroupIsToldHowToBecome) {
  const test::TempFolder folder;
  const bool is_root = ::geteuid() == 0;
  const gid_t group = is_root ? 1 : ::getegid();
  const std::string file = folder.Path("settings");
  const std::string closed = folder.Path("closed");
  test::WriteFile(file, test::SettingsXml({}));
  ASSERT_EQ(::mkdir(closed.c_str(), 0700), 0);
  for (const std::string& path : {file, closed}) {
    ASSERT_EQ(::chown(path.c_str(), is_root ? 0 : ::getuid(), group), 0);
    ASSERT_EQ(::chmod(path.c_str(), 0050), 0);  // of the owner's class, who is not in it
  }
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0755), 0);
  const std::string outside = is_root ? "setpriv --reuid 65534 --clear-groups " : "";
  if (test::RunShell(outside + "test -x " TAMSELCTL_PATH).exit_code != 0) {
    GTEST_SKIP() << "what root has built here is nobody else's to run";
  }
  const std::string help =
      std::string("; join the group ") + ::getgrgid(group)->gr_name + " (sudo ";
  const std::pair<std::string, int> commands[] = {
      {"settings", 1},
      {"health", 1},
      {"health " + closed + "/health", 3},
      {"log " + closed, 1},
      {"log", 1},
      {"request " + kRead, 1},
      {"request " + kRead + "--socket " + closed + "/tamsel.com", 3}};
  for (const auto& [arguments, exit_code] : commands) {
    const std::string command =
        outside + "env TAMSEL_SETTING_FILE=" + file + " " TAMSELCTL_PATH " " + arguments;
    ExpectRun(command, exit_code, ": Permission denied" + help);
    EXPECT_EQ(test::CountText(test::RunShell(command).output, "\n"), 1) << command;
  }
  ::chmod(closed.c_str(), 0700);
}

TEST(Tamselctl, OutputThatCannotBeWrittenIsNoSuccess) {
  ExpectRun(kRequest + "--help", 0, "Exit status:\n");
  ExpectRun(TAMSELCTL_PATH " --help > /dev/full", 1, "could not be written");
  ExpectOf({kGoodAnswer}, kRead + ">&-", 1, "could not be written");
  ::signal(SIGPIPE, SIG_DFL);  // a test driver may ignore it; the reader of the pipe has left
  const auto run = test::RunShell("bash -c 'exec 4> >(:); wait $!; " TAMSELCTL_PATH " --help >&4'");
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_EQ(run.output, "");
}

TEST(Tamselctl, FindsTheSocketAsTheDaemonDoes) {
  const FakeDaemon daemon(Answering({kGoodAnswer}));
  const test::TempFolder folder;
  const std::string fifo = folder.Path("fifo");
  const std::string right = folder.Path("right");
  const std::string wrong = folder.Path("wrong");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  test::WriteFile(right, test::SettingsXml({{"ComSocketPath", daemon.Path()}}));
  test::WriteFile(wrong, test::SettingsXml({{"ComSocketPath", "/nonexistent/socket"}}));
  const std::string in_right = "env TAMSEL_SETTING_FILE=" + right + " " + kRequest + kRead;
  ExpectRun(in_right, 0, "4660");
  ExpectRun(in_right + "--settings " + wrong + " --socket " + daemon.Path(), 0, "4660");
  ExpectRun(in_right + "--settings " + wrong, 3, "no daemon can be reached at /nonexistent/socket");
  ExpectRun(in_right + "--socket " + std::string(108, 'x'), 3, "is too long");
  ExpectRun(in_right + "--settings " + folder.Path("none"), 2, "none cannot be read: No such file");
  ExpectRun(in_right + "--settings " + fifo, 2, "is no regular file");
  const std::string in_fifo = "env TAMSEL_SETTING_FILE=" + fifo + " " + kRequest + kRead;
  ExpectRun(in_fifo, 1, "tamselctl: the settings " + fifo + " is no regular file\n");
  ExpectRun(in_fifo + "--socket " + daemon.Path(), 0, "4660");
  ExpectRun("env TAMSEL_SETTING_FILE=/nowhere " + kRequest + kRead, 3, "; the defaults hold\n");
  const FakeDaemon silent([](int) {}, 20000);
  ExpectRun("timeout 8 " + kRequest + kRead + "--deadline 500 --socket " + silent.Path(), 3,
            "did not answer in time");
}

void ExpectEndBySignal(int number, const std::string& before, const std::string& behind,
                       int exit_code, const std::string& text) {
  ::signal(number, SIG_DFL);  // as at a terminal, whatever has started the test
  const FakeDaemon daemon([&](int connection) {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    KillPeer(connection, number);
    if (exit_code == 0) {
      FakeDaemon::Send(connection, kGoodAnswer);
    }
    EXPECT_TRUE(FakeDaemon::ReadOnce(connection, 1).empty());
  });
  ExpectRun(before + kRequest + kRead + "--socket " + daemon.Path() + behind, exit_code, text);
}

TEST(Tamselctl, AnInterruptedExchangeSaysThatTheChannelStaysBusy) {
  const std::string text = "channel 2 stays busy until the exchange ends\n";
  ExpectEndBySignal(SIGINT, "", "", 130, text);
  ExpectEndBySignal(SIGTERM, "", "", 143, text);
  ExpectEndBySignal(SIGINT, "", " --watch 60", 130, "requests      0         0       0");
  ExpectEndBySignal(SIGINT, "env --ignore-signal=INT ", "", 0, "4660");
  // Nothing of the text goes to the daemon, whose socket would be the first free descriptor.
  ExpectEndBySignal(SIGINT, "", " 2>&-", 130, "");
}

}  // namespace
}  // namespace tmsc
