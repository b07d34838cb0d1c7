// The capture of a port: what tshark reads in it, and that no place for it harms a cycle.

#include <dlfcn.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>
#include <sstream>

#include "capture_file.h"
#include "rs485/serial_field.h"
#include "support/shell.h"

namespace tmsc::test {

namespace {

enum class Card { kWorks, kHangs, kFull };
std::atomic<Card> card{Card::kWorks};

}  // namespace

}  // namespace tmsc::test

/// Stands in front of the system's function for the library, too.
extern "C" ssize_t pwrite(int file, const void* data, std::size_t size, off_t offset) {
  using tmsc::test::Card;
  for (int left = 5000; left > 0 && tmsc::test::card == Card::kHangs; --left) {
    tmsc::test::SleepMs(1);
  }
  if (tmsc::test::card == Card::kFull) {
    errno = ENOSPC;
    return -1;
  }
  static const auto system = reinterpret_cast<decltype(&pwrite)>(::dlsym(RTLD_NEXT, "pwrite64"));
  return system(file, data, size, offset);
}

namespace tmsc::test {

namespace {

constexpr unsigned char k115200 = VLM_RS485_BAUD_115200;
const std::string kMagic = "\xd4\xc3\xb2\xa1";
constexpr std::size_t kMostInFile = 16 << 20;

class BusCaptureTest : public testing::Test {
 protected:
  BusCaptureTest() { ::setenv("RS485_CAPTURE_1", path_.c_str(), 1); }
  ~BusCaptureTest() override {
    card = Card::kWorks;
    ::unsetenv("RS485_CAPTURE_1");
  }
  void SwitchOn() const { std::filesystem::create_directory(place_); }

  /// Whether the capture comes to have a frame to the device.
  bool Has(unsigned char address) const {
    const Bytes frame = modbus::RtuFrame(address, {3, 0, 0, 0, 1});
    return WaitFor(
        5000, [&] { return Contains(ReadFile(path_), std::string(frame.begin(), frame.end())); });
  }

  const TempFolder folder_;
  const std::string place_ = folder_.Path("capture");
  const std::string path_ = place_ + "/bus.pcap";
  const std::string older_ = path_ + ".1";
};

std::size_t SizeOf(const std::string& path) {
  std::error_code none;
  const std::uintmax_t size = std::filesystem::file_size(path, none);
  return none ? 0 : static_cast<std::size_t>(size);
}

/// An exchange with a device of an even address, which nothing may hold up.
void Ask(unsigned char address) {
  Add(1, address);
  EXPECT_LE(RunCycle(1), kSlackMs);
  EXPECT_EQ(Answer(1, address), (Outcome{0, Told(address)}));
}

TEST_F(BusCaptureTest, TsharkReadsFramesOfModbusNoiseAndErrors) {
  if (RunShell("tshark --version").exit_code != 0) {
    GTEST_SKIP() << "tshark is not installed: nothing has read the capture";
  }
  SwitchOn();
  const Bytes noise = {0x55, 0x66, 0x77, 0x11, 0x22};
  const Bytes two = Told(2);
  const Bytes six = Told(6);
  const Bytes asked = modbus::RtuFrame(20, {4, 0, 0, 0, 9});
  // What follows the frame to each device, and what is read: event, unit and function, whether the
  // check sum is right, bytes with the header, and in words what it is taken for.
  const std::pair<Steps, std::vector<std::string>> exchanges[] = {
      {{{0, Told(1)}}, {"0x02 1 3 1 19 Response"}},
      {{{0, {2}}, {40, {3, 2, 0x12}}, {40, Bytes(two.begin() + 4, two.end())}},
       {"0x02 2 3 1 19 Response"}},
      {{{0, noise + Told(3)}}, {"0x02 85 102 0 17 unknown", "0x02 3 3 1 19 Response"}},
      {{{0, noise}, {100, noise}}, {"0x02 85 102 0 17 unknown", "0x02 85 102 0 17 unknown"}},
      {{{0, Told(9) + Told(5)}}, {"0x02 9 3 1 19 Response", "0x02 5 3 1 19 Response"}},
      {{{0, Bytes{6, 3, 2, 0xff, 0} + Bytes(six.begin() + 3, six.end())}},
       {"0x08 12 PARITY_ERROR", "0x02 6 3 1 19 Response"}},
      {{{0, modbus::RtuFrame(7, {3, 0, 0, 0, 1}) + Told(7)}},  // an echo
       {"0x02 7 3 1 20 Query", "0x02 7 3 1 19 Response"}},
      {{{0, asked + asked + modbus::RtuFrame(20, {0x84, 2}) + Told(8)}},  // by a second master
       {"0x02 20 4 1 20 Query", "0x02 20 4 1 20 Query", "0x02 20 4 1 17 Response",
        "0x02 8 3 1 19 Response"}},
      {{{0, {0xff, 0, 0}}}, {"0x09 12 SERIAL_BREAK_EVENT", "0x02 13 DATA_RX_START"}},
      {{{0, {0xff, 0, 1}}}, {"0x07 12 FRAMING_ERROR", "0x02 13 DATA_RX_START"}},
  };
  std::vector<std::string> expected;
  {
    const Field field(1, k115200, [&](int address) { return exchanges[address - 1].first; });
    for (unsigned char address = 1; address <= std::size(exchanges); ++address) {
      Add(1, address, {500, 0, 50, 0, address == 6 ? VLM_RS485_8E1 : VLM_RS485_8N1});
      const std::string unit = std::to_string(address);
      expected.push_back("0x01 " + unit + " 3 1 20 Query");
      const std::vector<std::string>& heard = exchanges[address - 1].second;
      expected.insert(expected.end(), heard.begin(), heard.end());
    }
    RunCycle(1);
    ASSERT_TRUE(Has(static_cast<unsigned char>(std::size(exchanges))));
  }
  std::istringstream lines(
      RunShell("tshark -r " + path_ +
               " -d rtacser.data,mbrtu -o mbrtu.crc_verification:TRUE -T fields -e frame.time_epoch"
               " -e rtacser.eventtype -e mbrtu.unit_id -e modbus.func_code -e mbrtu.crc16.status"
               " -e frame.len -e _ws.col.Info 2>/dev/null")
          .output);
  std::vector<std::string> read;
  std::vector<double> times;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line.substr(0, line.find_first_of(":(")));
    double time = 0;
    words >> time;
    times.push_back(time);
    read.emplace_back();
    for (std::string word; words >> word;) {
      read.back() += (read.back().empty() ? "" : " ") + word;
    }
  }
  for (std::string& row : read) {
    row.resize(std::min(row.size(), row.find(" Unit")));
  }
  EXPECT_EQ(read, expected);
  ASSERT_GT(times.size(), 4u);
  EXPECT_GE(times[4] - times[3], 0.030) << "an answer has the time of its first byte";
  EXPECT_NEAR(times[0], static_cast<double>(::time(nullptr)), 60);
}

TEST_F(BusCaptureTest, TheFolderSwitchesItWhileThePortIsOpen) {
  const Field field(1, k115200, AnswerAtOnce);
  Ask(2);
  EXPECT_FALSE(std::filesystem::exists(place_));
  SwitchOn();
  Ask(4);
  EXPECT_TRUE(Has(4));
  const std::size_t size = SizeOf(path_);
  const std::string away = folder_.Path("away");
  std::filesystem::rename(place_, away);
  Ask(6);
  SwitchOn();
  Ask(8);
  EXPECT_TRUE(Has(8));
  EXPECT_EQ(SizeOf(away + "/bus.pcap"), size) << "it was taken away";
  std::filesystem::remove(path_);
  Ask(10);
  EXPECT_TRUE(Has(10)) << "a removed file is made anew";
  EXPECT_EQ(vlm_rs485_open(1, false, k115200), 0);
  Ask(12);
  EXPECT_TRUE(Has(12) && Has(10)) << "the port was opened anew";
}

TEST_F(BusCaptureTest, NothingButAnEarlierCaptureGivesWay) {
  const std::string other = folder_.Path("other");
  const std::string header =
      kMagic + std::string("\2\0\4\0\0\0\0\0\0\0\0\0\xff\xff\0\0\xfa\0\0\0", 20);
  WriteFile(other, header);
  const std::function<void()> obstacles[] = {
      [&] { WriteFile(path_, "a text\n"); },
      [&] { std::filesystem::create_symlink(other, path_); },
      [&] { std::filesystem::create_hard_link(other, path_); },
      [&] { ASSERT_EQ(::mkfifo(path_.c_str(), 0600), 0); },
      [&] { std::filesystem::create_directory(path_); },
      [&] {
        WriteFile(path_, header);
        WriteFile(older_, "a text\n");
      },
  };
  const Field field(1, k115200, AnswerAtOnce);
  for (const auto& obstacle : obstacles) {
    SwitchOn();
    obstacle();
    const auto type = std::filesystem::symlink_status(path_).type();
    const bool is_file = type == std::filesystem::file_type::regular;
    const std::string text = is_file ? ReadFile(path_) : "";
    Ask(2);
    SleepMs(20);  // it may try
    const std::string away = folder_.Path("away");
    std::filesystem::rename(place_, away);
    SwitchOn();
    Ask(4);
    EXPECT_TRUE(Has(4));
    EXPECT_EQ(std::filesystem::symlink_status(away + "/bus.pcap").type(), type);
    EXPECT_TRUE(!is_file || ReadFile(away + "/bus.pcap") == text);
    EXPECT_EQ(ReadFile(other), header);
    EXPECT_TRUE(SizeOf(away + "/bus.pcap.1") == 0 || ReadFile(away + "/bus.pcap.1") == "a text\n");
    std::filesystem::remove_all(away);
    std::filesystem::remove_all(place_);
  }
  for (const std::string& earlier : {header, std::string()}) {
    SwitchOn();
    WriteFile(path_, earlier);
    Ask(4);
    EXPECT_TRUE(Has(4));
    EXPECT_EQ(ReadFile(older_), earlier);
    std::filesystem::remove_all(place_);
  }
}

TEST_F(BusCaptureTest, ACardThatHangsOrIsFullHoldsNothingUp) {
  SwitchOn();
  const Field field(1, k115200, AnswerAtOnce);
  card = Card::kHangs;
  Ask(2);
  Ask(4);
  EXPECT_EQ(SizeOf(path_), 0u);
  card = Card::kWorks;
  EXPECT_TRUE(Has(2) && Has(4)) << "what was queued meanwhile is written";
  const std::string lost("\5\0\0\0", 4);
  EXPECT_FALSE(Contains(ReadFile(path_), lost));
  EXPECT_TRUE(WaitFor(5000, [&] {
    card = Card::kFull;
    Ask(6);
    card = Card::kWorks;
    Ask(8);
    return Has(8) && Contains(ReadFile(path_), lost);
  })) << "packets were lost, and nothing tells";
}

TEST_F(BusCaptureTest, TwoFilesAndTheQueueAreBounded) {
  SwitchOn();
  rs485::CaptureFile file(path_);
  const Bytes bytes(436, 1);
  const auto add = [&](int count) {
    for (int i = 0; i < count; ++i) {
      file.Add(rs485::CaptureFile::Event::kHeard, 1, bytes.data(), bytes.size());
    }
    file.Write();
  };
  card = Card::kHangs;
  add(20000);  // 9 MB
  card = Card::kWorks;
  EXPECT_TRUE(WaitFor(5000, [&] { return SizeOf(path_) > 0; }));
  SleepMs(100);
  EXPECT_LE(SizeOf(path_), 1u << 20) << "more was queued";
  for (int round = 0; round < 3; ++round) {
    std::size_t size = 0;
    do {
      size = SizeOf(path_);
      EXPECT_LE(size, kMostInFile);
      add(500);
      ASSERT_TRUE(WaitFor(5000, [&] { return SizeOf(path_) != size; }));
    } while (SizeOf(path_) > size);
    EXPECT_LE(SizeOf(older_), kMostInFile);
    EXPECT_GE(SizeOf(older_), kMostInFile - (1 << 20));
  }
  EXPECT_EQ(ReadFile(older_).substr(0, 4), kMagic);
  EXPECT_EQ(ReadFile(path_).substr(0, 4), kMagic);
  const std::filesystem::directory_iterator files(place_);
  EXPECT_EQ(std::distance(begin(files), end(files)), 2);
}

}  // namespace

}  // namespace tmsc::test
