#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <csignal>
#include <map>

#include "request_builder.h"
#include "support/fake_daemon.h"
#include "support/shell.h"
#include "support/wait.h"

namespace tmsc {
namespace {

using test::Contains;

const std::string kRequest = std::string(TAMSELCTL_PATH) + " request ";
const std::string kTcp = "--channel 2 --device 5=192.0.2.7:502 ";
const std::string kRead = kTcp + "--read-holding 0x10,2 ";
const std::string kGoodAnswer = "0001 0000 0007 05 0304 1234 FFFF";
const std::string kRtu = "--channel 2 --device 5 --baud 19200 ";
const std::string kReadRtu = kRtu + "--read-holding 0x10,2 ";
const std::string kGoodRtuAnswer = "05 0304 1234 FFFF FAF5";

std::string Repeated(const std::string& text, int count) {
  return count == 0 ? "" : text + Repeated(text, count - 1);
}

void ExpectRun(const std::string& command, int exit_code, const std::string& text) {
  const test::ShellResult run = test::RunShell(command);
  EXPECT_EQ(run.exit_code, exit_code) << command << '\n' << run.output;
  EXPECT_TRUE(Contains(run.output, text)) << command << '\n' << text << '\n' << run.output;
}

// Answers each request with the next response, and closes without one when none is left.
class AnsweringDaemon : public FakeDaemon {
 public:
  explicit AnsweringDaemon(std::vector<ResponseReceiveData> responses)
      : FakeDaemon([responses, next = std::size_t{0}](int connection) mutable {
          ReadOnce(connection, sizeof(TcpIpRequest));
          if (next < responses.size()) {
            Send(connection, responses[next++]);
          }
        }) {}
  std::string Command(const std::string& arguments) const {
    return kRequest + "--socket " + Path() + " " + arguments;
  }
};

ResponseReceiveData SlotLength(int length) {
  ResponseReceiveData response{};
  response.receive_data.receive_data[4].length = static_cast<std::int16_t>(length);
  return response;
}

TEST(Tamselctl, ExitStatusAndTextFollowTheResponse) {
  const std::string write = kRtu + "--write-registers 0x100,1,2 ";
  const std::string raw = kRtu + "--crc --frame ";
  const struct {
    std::string arguments;
    std::vector<ResponseReceiveData> responses;
    int exit_code;
    std::string text;
  } cases[] = {
      {kRead, {Answer(5, 0, kGoodAnswer)}, 0, "registers: 4660 65535\n"},
      {kRead, {Answer(5, 0, kGoodAnswer)}, 0, "192.0.2.7:502  ok      000100000007050304"},
      {kRead + "--format json",
       {Answer(5, 0, kGoodAnswer)},
       0,
       R"("devices":[{"device":5,"place":"192.0.2.7:502","ok":true,"status":"ok",)"
       R"("answer":"0001000000070503041234FFFF","registers":[4660,65535]}]})"},
      {kRead, {Answer(5, 0, "0001 0000 0003 05 8302")}, 5, "exception 2: illegal data addr"},
      {kRead, {Answer(5, 0, "0002 0000 0007 05 0304 1234 FFFF")}, 5, "misfit: wrong transaction"},
      {kRead, {Answer(5, 0, "0001 0000 0007 06 0304 1234 FFFF")}, 5, "misfit: wrong unit"},
      {kRead, {Answer(5, 0, "0001 0000 0007 05 0404 1234 FFFF")}, 5, "misfit: wrong function"},
      {kRead, {Answer(5, 0, "0001 0000 0007 05 0302 1234 FFFF")}, 5, "not the registers asked"},
      {kRead, {Answer(5, 0, "0001 0000 0007 05")}, 5, "misfit: no Modbus/TCP frame"},
      {kRead, {Answer(5, 20, "")}, 5, "connect failed + send or receive failed"},
      {kRead, {Answer(5, 41, "")}, 5, "internal exception + unknown status 33"},
      {kRead, {Answer(6, 0, kGoodAnswer)}, 5, "no answer"},
      {kRead, {SlotLength(-1)}, 5, "broken slot"},
      {kRead, {SlotLength(439)}, 5, "broken slot"},
      {kTcp + "--frame 11", {Answer(5, 0, "AB")}, 0, "ok      AB"},
      {kRead, {Status(10)}, 4, "channel 2: the channel is busy"},
      {kRead + "--busy-wait 5000", {Status(10), Answer(5, 0, kGoodAnswer)}, 0, "4660 65535"},
      {kRead + "--busy-wait 60", std::vector(4, Status(10)), 4, "busy"},
      {kRead, {Status(4)}, 6, "did not receive the whole payload"},
      {kRead, {Status(99)}, 6, "unknown status 99"},
      {kRead, {}, 6, "closed the connection without an answer"},

      {kReadRtu, {Answer(5, 0, kGoodRtuAnswer)}, 0, "registers: 4660 65535\n"},
      {kReadRtu + "--format json", {Answer(5, 0, "")}, 5, R"("19200 8N1","ok":false,"status":"no)"},
      {write, {Answer(5, 0, "05 10 0100 0002 41B0")}, 0, "answered"},
      {write, {Answer(5, 0, "05 10 0100 0001 01B1")}, 5, "not the registers written"},
      {kReadRtu, {Answer(5, 0, "05 8302 8130")}, 5, "exception 2: illegal data addr"},
      {kReadRtu, {Answer(5, 0, "05 0304 0034 FFFF FAF5")}, 5, "wrong CRC"},
      {kReadRtu, {Answer(5, 0, "0503")}, 5, "wrong CRC"},
      {kReadRtu, {Answer(5, 0, "05 7F43")}, 5, "misfit: no Modbus RTU frame"},
      {kReadRtu, {Answer(5, 0, "06 0304 1234 FFFF C9F5")}, 5, "answer of device 6"},
      {kReadRtu, {Answer(5, 0, "05 0404 1234 FFFF FB42")}, 5, "misfit: wrong function"},
      {kReadRtu, {Answer(5, 0, "05 0302 1234 44F3")}, 5, "not the registers asked"},
      {kReadRtu, {Answer(5, 1, "")}, 5, "no answer"},
      {kReadRtu, {Answer(5, 9, "")}, 5, "unknown status 9"},
      {kRtu + "--frame 11", {Answer(5, 0, "AB0102")}, 0, "answered  AB0102"},
      {raw + "050300100002", {Answer(5, 0, kGoodRtuAnswer)}, 0, "registers: 4660 65535\n"},
      {raw + "050300100002", {Answer(5, 0, "05 8302 8130")}, 5, "exception 2: illegal data addr"},
      {raw + "050300100002", {Answer(5, 0, "06 0304 1234 FFFF C9F5")}, 5, "answer of device 6"},
      {raw + "F70333", {Answer(5, 0, "AB FEFF")}, 5, "misfit: no Modbus RTU frame"},
      // Not Modbus: one byte, a reserved address, and what are no function codes.
      {raw + "11", {Answer(5, 0, "AB0102")}, 5, "wrong CRC"},
      {raw + "11", {Answer(5, 0, "AB FEFF")}, 0, "answered  AB"},
      {raw + "F80333", {Answer(5, 0, "AB FEFF")}, 0, "answered  AB"},
      {raw + "110033", {Answer(5, 0, "AB FEFF")}, 0, "answered  AB"},
      {raw + "118333", {Answer(5, 0, "AB FEFF")}, 0, "answered  AB"},
      {kRtu + "--frame 0011 --broadcast", {Answer(5, 0, "")}, 0, "sent"},
      {kRtu + "--frame 0011 --broadcast", {Answer(5, 4, "")}, 5, "port gone"},
      {kReadRtu, {Status(8)}, 6, "the RS485 port could not be opened"},
  };
  for (const auto& given : cases) {
    ExpectRun(AnsweringDaemon(given.responses).Command(given.arguments), given.exit_code,
              given.text);
  }
}

using Parts = std::map<std::size_t, std::string>;

TEST(Tamselctl, SendsTheRecordAskedInOneWrite) {
  const std::string tcp = "--device 9=192.0.2.1:502 --device 5=192.0.2.7:503 --timeout 0x100 ";
  const Parts tcp_parts = {{8, "03"},
                           {12, "02"},
                           {64, "03"},
                           {68, "09 3139322E302E322E31"},
                           {87, "F601"},
                           {95, "0001"},
                           {97, "05 3139322E302E322E37"},
                           {116, "F701"},
                           {124, "0001"}};
  const std::string rtu = "--device 5 --baud ";
  const Parts rtu_parts = {{8, "03"}, {12, "01"}, {64, "03"}};
  const struct {
    std::string arguments;
    Parts parts;  // by offset, beside those that are the same in each row
  } cases[] = {
      {tcp + "--read-holding 0x10,2",
       {{967, "09 0C00 0001 0000 0006 09 03 0010 0002"},
        {1096, "05 0C00 0002 0000 0006 05 03 0010 0002"}}},
      {tcp + "--read-input 16,2 --unit 0xFF",
       {{967, "09 0C00 0001 0000 0006 FF 04 0010 0002"},
        {1096, "05 0C00 0002 0000 0006 FF 04 0010 0002"}}},
      {tcp + "--write-registers 256,65535,0x102",
       {{967, "09 1100 0001 0000 000B 09 10 0100 0002 04 FFFF 0102"},
        {1096, "05 1100 0002 0000 000B 05 10 0100 0002 04 FFFF 0102"}}},
      {tcp + "--frame 9:FF --frame 5:'0a 0B'", {{967, "09 0100 FF"}, {1096, "05 0200 0A0B"}}},
      {tcp + "--frame 0c", {{967, "09 0100 0C"}, {1096, "05 0100 0C"}}},
      {rtu + "1200 --read-holding 0x10,2",
       {{68, "00 05 00 E803"}, {286, "05 0800 05 03 0010 0002 C44A"}}},
      {rtu + "921600 --line 7O2 --silence 20 --timeout 300 --wait 255 --unit 255 --read-input 16,2",
       {{68, "0A 05 0B 2C01 00 14 FF"}, {286, "05 0800 FF 04 0010 0002 65D0"}}},
      {rtu + "19200 --line 8E1 --delimiter 0x0D,2 --write-registers 256,65535,0x102",
       {{68, "04 05 01 E803 0D 02 00"}, {286, "05 0D00 05 10 0100 0002 04 FFFF 0102 6B7A"}}},
      {rtu + "9600 --delimiter 10 --broadcast --write-registers 256,7",
       {{68, "03 05 00 E803 0A"}, {286, "05 0B00 00 10 0100 0001 02 0007 FAC2"}}},
      {rtu + "9600 --frame 112233", {{68, "03 05 00 E803"}, {286, "05 0300 112233"}}},
      {rtu + "9600 --crc --frame 112233", {{68, "03 05 00 E803"}, {286, "05 0500 112233 7970"}}},
      {rtu + "9600 --write-registers 256" + Repeated(",0", 27),
       {{68, "03 05 00 E803"}, {286, "05 3F00 05 10 0100 001B 36"}, {350, "B994"}}},
  };
  for (const auto& given : cases) {
    const bool is_rtu = Contains(given.arguments, "--baud");
    std::vector<byte> expected(is_rtu ? sizeof(Rs485Request) : sizeof(TcpIpRequest));
    for (const Parts& parts : {is_rtu ? rtu_parts : tcp_parts, given.parts}) {
      for (const auto& [offset, digits] : parts) {
        const std::vector<byte> bytes = FromHex(digits);
        std::copy(bytes.begin(), bytes.end(), expected.data() + offset);
      }
    }
    std::vector<byte> received;
    {
      FakeDaemon daemon([&](int socket) { received = FakeDaemon::ReadOnce(socket, 10000); });
      ExpectRun(kRequest + "--channel 3 " + given.arguments + " --socket " + daemon.Path(), 6, "");
    }
    EXPECT_EQ(received, expected) << given.arguments;
  }
}

TEST(Tamselctl, WrongUsageIsRefusedBeforeAnythingIsSent) {
  const std::string one = "--channel 1 --device 1=192.0.2.1:502 ";
  const struct {
    std::string arguments;
    std::string text;
  } cases[] = {
      {"--channel 4 --device 1=192.0.2.1:502 --frame 01", "4 is not a number of 1 to 3"},
      {"--channel 1 --device 1=192.0.2.1 --frame 01", "1=192.0.2.1 is not ADDRESS=IP:PORT"},
      {"--channel 1 --device 32=192.0.2.1:1 --frame 01", "with an address of 1 to 31"},
      {one + "--device 1=192.0.2.2:502 --frame 01", "in the request already"},
      {one + "--device 2=host:502 --frame 01", "\"host\" is not an IPv4 address"},
      {one, "Exactly 1 option"},
      {one + "--frame 01 --read-input 0,1", "2 were given"},
      {one + "--frame 012", "012 is not HEX"},
      {one + "--frame 2:01", "no device 2"},
      {one + "--frame 01 --frame 02", "a second frame for device 1"},
      {one + "--device 2=192.0.2.2:502 --frame 1:01", "no frame for device 2"},
      {one + "--frame 01 --unit 3", "sent as they are"},
      {one + "--read-holding 0,126", "1 to 125 registers"},
      {one + "--read-holding 65535,2", "none above 65535"},
      {one + "--read-holding 1,-1", "is not START,COUNT"},
      {one + "--write-registers 1,65536", "is not START,VALUE"},
      {one + "--device 2 --frame 01", "do not mix"},
      {one + "--baud 9600 --frame 01", "have no speed"},
      {one + "--line 8E1 --frame 01", "--line requires --baud"},
      {"--channel 1 --device 1 --frame 01", "needs --baud"},
      {"--channel 1 --device 32 --baud 9600 --frame 01", "32 is not an address of 1 to 31"},
      {"--channel 1 --device 1 --baud 9601 --frame 01", "9601 is not one of 1200, 2400, 4800"},
      {kRtu + "--line 9N1 --frame 01", "9N1 is not one of 8N1, 8E1"},
      {kRtu + "--wait 256 --frame 01", "256 is not a number of 0 to 255"},
      {kRtu + "--delimiter 0 --frame 01", "0 is not BYTE[,AFTER]"},
      {kRtu + "--delimiter 1,256 --frame 01", "1,256 is not BYTE[,AFTER]"},
      {kRtu + "--delimiter 1 --silence 1 --frame 01", "excludes"},
      {kRtu + "--frame " + std::string(126, '1') + " --crc", "a frame of 65 bytes is longer"},
      {kRtu + "--write-registers 0" + Repeated(",1", 28), "1 to 27 registers"},
      {one + "--write-registers 0" + Repeated(",1", 57), "1 to 56 registers"},
      {kRtu + "--frame 0001", "needs it"},
      {kRtu + "--frame 0101 --broadcast", "is not 0"},
      {kRtu + "--unit 0 --read-input 0,1", "needs it"},
      {kRtu + "--device 6 --frame 00 --broadcast", "one --device is enough"},
      {kRtu + "--read-input 0,1 --broadcast", "nothing can be read"},
      {kRtu + "--read-input 0,1 --crc", "only --frame"},
      {one + "--frame ''", "the argument behind --frame is empty"},
      {"''", "the argument behind request is empty"},
  };
  for (const auto& given : cases) {
    ExpectRun(kRequest + "--socket /nonexistent/socket " + given.arguments, 2, given.text);
  }
}

TEST(Tamselctl, CommandLineWithoutARequest) {
  const struct {
    const char* arguments;
    int exit_code;
    const char* text;
  } cases[] = {
      {"", 2, "A subcommand is required"},
      {"''", 2, "the argument behind tamselctl is empty"},
      {"requst --channel 1", 2, "requst is no command; did you mean request?\n"},
      {"rquets", 2, "rquets is no command\n"},
      {"--version", 0, "tamselctl 1."},
      {"--help", 0, "request "},
      {"--help > /dev/full", 1, "could not be written"},
      {"request --help >&-", 1, "could not be written"},
  };
  for (const auto& given : cases) {
    ExpectRun(TAMSELCTL_PATH " " + std::string(given.arguments), given.exit_code, given.text);
  }
}

TEST(Tamselctl, AnswersThatCannotBePrintedAreNoSuccess) {
  const test::TempFolder folder;
  const std::string fifo = folder.Path("fifo");
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const AnsweringDaemon daemon({Answer(5, 0, kGoodAnswer), Answer(5, 0, kGoodAnswer)});
  ExpectRun(daemon.Command(kRead + " > /dev/full"), 1, "could not be written");
  // A pipe whose reader has left.
  ExpectRun(
      "sh -c ': < " + fifo + " & exec 4> " + fifo + "; wait; " + daemon.Command(kRead) + ">&4'", 1,
      "could not be written");
}

TEST(Tamselctl, FindsTheSocketAsTheDaemonDoes) {
  const test::TempFolder folder;
  const AnsweringDaemon daemon(std::vector(4, Answer(5, 0, kGoodAnswer)));
  const std::string right = folder.Path("right");
  const std::string wrong = folder.Path("wrong");
  const std::string fifo = folder.Path("fifo");
  test::WriteFile(right, test::SettingsXml({{"ComSocketPath", daemon.Path()}}));
  test::WriteFile(wrong, test::SettingsXml({{"ComSocketPath", "/nonexistent/socket"}}));
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  const struct {
    std::string environment;
    std::string arguments;
    int exit_code;
    std::string text;
  } cases[] = {
      {right, "", 0, "4660"},
      {wrong, "--settings " + right, 0, "4660"},
      {right, "--settings " + wrong, 3, "no daemon can be reached at /nonexistent/socket"},
      {wrong, "--settings " + wrong + " --socket " + daemon.Path(), 0, "4660"},
      {right, "--socket " + std::string(108, 'x'), 3, "is too long"},
      {right, "--settings " + folder.Path("none"), 2, "none cannot be read: No such file"},
      {right, "--settings " + fifo, 2, "is no regular file"},
  };
  for (const auto& given : cases) {
    ExpectRun(
        "env TAMSEL_SETTING_FILE=" + given.environment + " " + kRequest + kRead + given.arguments,
        given.exit_code, given.text);
  }
}

TEST(Tamselctl, ASilentDaemonEndsWithThree) {
  const FakeDaemon silent([](int connection) {
    FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
    FakeDaemon::ReadOnce(connection, 1);
  });
  const test::Stopwatch watch;
  ExpectRun(kRequest + kRead + "--deadline 500 --socket " + silent.Path(), 3, "answer in time");
  EXPECT_LT(watch.Ms(), 1000 + test::kSlackMs);
}

TEST(Tamselctl, AnInterruptedExchangeSaysThatTheChannelStaysBusy) {
  const struct {
    int signal;
    const char* prefix;
    const char* suffix;
    int exit_code;
    const char* text;
  } cases[] = {
      {SIGINT, "", "", 130, "channel 2 stays busy until the exchange ends\n"},
      {SIGTERM, "", "", 143, "channel 2 stays busy until the exchange ends\n"},
      {SIGINT, "env --ignore-signal=INT ", "", 0, "4660"},
      // Nothing of it goes to the daemon, whose socket would be the first free descriptor.
      {SIGINT, "", " 2>&-", 130, ""},
  };
  for (const auto& given : cases) {
    std::signal(given.signal, SIG_DFL);  // as at a terminal, whatever has started the test
    std::vector<byte> rest;
    const FakeDaemon daemon([&](int connection) {
      FakeDaemon::ReadOnce(connection, sizeof(TcpIpRequest));
      ucred client{};
      socklen_t size = sizeof(client);
      ASSERT_EQ(::getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &client, &size), 0);
      ::kill(client.pid, given.signal);
      if (given.exit_code == 0) {
        FakeDaemon::Send(connection, Answer(5, 0, kGoodAnswer));
      }
      rest = FakeDaemon::ReadOnce(connection, 1);
    });
    ExpectRun(given.prefix + kRequest + kRead + "--socket " + daemon.Path() + given.suffix,
              given.exit_code, given.text);
    EXPECT_TRUE(rest.empty());
  }
}

}  // namespace
}  // namespace tmsc
