#include "log/log_file_output.h"

#include <sys/resource.h>

#include <csignal>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <set>

#include "support/log_fixture.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

using std::chrono::milliseconds;

class LogFileOutputTest : public test::LogFixture {
 protected:
  LogFileOutputTest() { ::testing::internal::CaptureStdout(); }
  ~LogFileOutputTest() override { Console(); }

  /// Lines of the form "[x UTC] message"; a line of n bytes has a message of n - 9.
  std::unique_ptr<LogFileOutput> Output(bool is_buffered = true) {
    auto output = std::make_unique<LogFileOutput>();
    output->SetTimeStampFormat("x");
    output->SetIsEnableBufferdIO(is_buffered);
    return output;
  }
  static void Log(LogFileOutput& output, const std::string& message) {
    output.LogOutput(kLogOutputLevelErrorValue, "", "", message);
  }
  static void LogBytes(LogFileOutput& output, std::size_t size, char filling) {
    Log(output, std::string(size - 9, filling));
  }
  /// Everything echoed so far; the first call ends the capture.
  std::string Console() {
    if (!is_captured_) {
      is_captured_ = true;
      console_ = ::testing::internal::GetCapturedStdout();
    }
    return console_;
  }
  std::string Text(const std::string& suffix = "") const { return test::ReadFile(path_ + suffix); }
  int ErrorFileLines() const {
    return test::CountText(StringUtil::LoadFromFile("/tmp/logger_io_file_error"),
                           "[x UTC] " + path_);
  }
  /// The card is gone: something else stands in the directory's place.
  void RemoveCard() const {
    std::filesystem::rename(directory_, directory_ + ".away");
    test::WriteFile(directory_, "");
  }
  void InsertCard() const {
    std::filesystem::remove(directory_);
    std::filesystem::rename(directory_ + ".away", directory_);
  }

  const std::string directory_ = folder_.Path("card");
  const std::string path_ = directory_ + "/com.log";

 private:
  bool is_captured_ = false;
  std::string console_;
};

TEST_F(LogFileOutputTest, BufferedModeWaitsForTheThresholdOrAFlush) {
  auto output = Output();
  output->SetBufferSize(4096);
  output->Setup(path_);
  LogBytes(*output, 4000, 'a');
  EXPECT_FALSE(test::WaitFor(1200, [&] { return !Text().empty(); }));
  LogBytes(*output, 96, 'b');  // exactly the threshold
  EXPECT_TRUE(test::WaitFor(5000, [&] { return Text().size() == 4096; }));
  LogBytes(*output, 20, 'c');
  output->Flush();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return Text().size() == 4116; }));
  LogBytes(*output, 4095, 'd');
  EXPECT_FALSE(test::WaitFor(1200, [&] { return Text().size() > 4116; }))
      << "the count starts afresh after a flush";
  output.reset();
  EXPECT_EQ(8211U, Text().size()) << "the end writes what is queued";
}

TEST_F(LogFileOutputTest, RotatesBeforeTheFileGetsTooLarge) {
  std::filesystem::create_directories(directory_);
  test::WriteFile(path_, std::string(900, 'o'));
  auto output = Output();
  output->SetFileSize(1000);
  output->SetRollingIndex(2);
  output->Setup(path_);
  LogBytes(*output, 80, '1');
  LogBytes(*output, 80, '2');
  LogBytes(*output, 920, '3');  // exactly full
  output.reset();
  EXPECT_EQ(980U, Text(".1").size());
  EXPECT_EQ('1', Text(".1")[978]);
  EXPECT_EQ(1000U, Text().size());
  EXPECT_EQ(0U, Text().find("[x UTC] 2"));
  EXPECT_FALSE(FileUtil::IsFileExists(path_ + ".2"));
}

TEST_F(LogFileOutputTest, ALongLineStandsAlone) {
  auto output = Output();
  output->SetFileSize(100);
  output->SetRollingIndex(9);
  output->Setup(path_);
  LogBytes(*output, 60, '1');
  LogBytes(*output, 500, '2');
  LogBytes(*output, 60, '3');
  output.reset();
  EXPECT_EQ(60U, Text().size());
  EXPECT_EQ(500U, Text(".1").size());
  EXPECT_EQ(60U, Text(".2").size());
}

TEST_F(LogFileOutputTest, KeepsAsManyCopiesAsSet) {
  for (const unsigned int copies : {1U, 3U, 12U}) {
    auto output = Output();
    output->SetFileSize(50);
    output->SetRollingIndex(copies);
    output->Setup(path_);
    for (unsigned int i = 0; i < copies + 3; ++i) {
      Log(*output, std::string(30, 'f') + std::to_string(i));
    }
    output.reset();
    for (unsigned int i = 0; i <= copies; ++i) {
      const std::string text = Text(i == 0 ? "" : "." + std::to_string(i));
      EXPECT_TRUE(StringUtil::EndWith(text, "f" + std::to_string(copies + 2 - i) + "\n"))
          << copies << " copies, file " << i << " " << text;
    }
    EXPECT_FALSE(FileUtil::IsFileExists(path_ + "." + std::to_string(copies + 1)));
    std::filesystem::remove_all(directory_);
  }
}

TEST_F(LogFileOutputTest, WriteSwitchOffEchoesOnly) {
  auto output = Output(false);
  output->Setup(path_);
  Log(*output, "before");
  FileUtil::GetInstance()->SetLogWriteEnable(false);
  Log(*output, "between");
  output->Flush();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return Text() == "[x UTC] before\n"; }))
      << "a flush writes what was queued before";
  FileUtil::GetInstance()->SetLogWriteEnable(true);
  Log(*output, "after");
  output.reset();
  EXPECT_EQ("[x UTC] before\n[x UTC] after\n", Text());
  EXPECT_EQ("com.log [x UTC] before\ncom.log [x UTC] between\ncom.log [x UTC] after\n", Console());
}

TEST_F(LogFileOutputTest, LinesSurviveACardThatIsGoneForAWhile) {
  auto output = Output(false);
  output->Setup(path_);
  RemoveCard();
  Log(*output, "first");
  ASSERT_TRUE(test::WaitFor(5000, [&] { return ErrorFileLines() == 1; }));
  Log(*output, "second");  // goes to the other buffer
  InsertCard();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return Text() == "[x UTC] second\n[x UTC] first\n"; }))
      << Text();

  RemoveCard();
  Log(*output, "third");
  ASSERT_TRUE(test::WaitFor(5000, [&] { return ErrorFileLines() == 2; }));
  EXPECT_FALSE(test::WaitFor(1700, [&] { return ErrorFileLines() > 2; })) << "one line an episode";
  InsertCard();
  output.reset();
  EXPECT_EQ("[x UTC] second\n[x UTC] first\n[x UTC] third\n", Text());
}

TEST_F(LogFileOutputTest, KeptLinesAreBounded) {
  constexpr std::size_t kLine = 16 * 1024;
  constexpr int kCount = 400;
  constexpr std::size_t kBound = 4 * 1024 * 1024;
  auto output = Output(false);
  output->SetFileSize(100 * 1024 * 1024);
  output->Setup(path_);
  RemoveCard();
  Log(*output, "start");
  ASSERT_TRUE(test::WaitFor(5000, [&] { return ErrorFileLines() == 1; }));
  for (int i = 0; i < kCount; ++i) {
    Log(*output, std::to_string(i) + " " + std::string(kLine, 'k'));
  }
  // The bound holds also when lines went on through several vain attempts.
  EXPECT_FALSE(test::WaitFor(1200, [] { return false; }));
  InsertCard();
  output.reset();

  const std::string text = Text();
  EXPECT_GT(text.size(), kBound - kBound / 16);
  EXPECT_LT(text.size(), kBound + kLine);
  std::set<int> numbers;  // two buffers: each in order, not the two together
  for (const std::string& line : test::Lines(text)) {
    if (line.size() > kLine) {
      EXPECT_TRUE(numbers.insert(std::stoi(line.substr(8))).second) << line.substr(0, 20);
    }
  }
  const int kept = static_cast<int>(numbers.size());
  ASSERT_GT(kept, 0);
  EXPECT_EQ(kCount - kept, *numbers.begin()) << "the newest are kept";
  EXPECT_EQ(kCount - 1, *numbers.rbegin());
  EXPECT_EQ(1,
            test::CountText(text, "[x UTC] [W] LogFlOut Log lines lost while the card was gone [" +
                                      std::to_string(kCount + 1 - kept) + "]"))
      << kept;
}

TEST_F(LogFileOutputTest, AFullCardLosesTextAndLeavesOneLineAnEpisode) {
  // The limit on file sizes stands for the card's end; it also binds the error file and the
  // captured console, which have to stay well below it.
  std::error_code no_file;
  const auto error_file_size = std::filesystem::file_size("/tmp/logger_io_file_error", no_file);
  const std::uintmax_t room = 16 * 1024 * 1024 + (no_file ? 0 : 2 * error_file_size);
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &limit));
  const rlimit before = limit;
  limit.rlim_cur = static_cast<rlim_t>(room);
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
  auto output = Output(false);
  output->SetFileSize(static_cast<unsigned int>(2 * room));
  output->Setup(path_);
  for (int episode = 1; episode <= 2; ++episode) {
    test::WriteFile(path_, "");
    for (int i = 0; i < 3; ++i) {
      std::filesystem::resize_file(path_, room - 5);  // a part of the line still fits
      Log(*output, "lost");
      ASSERT_TRUE(test::WaitFor(5000, [&] { return std::filesystem::file_size(path_) == room; }));
      EXPECT_TRUE(test::WaitFor(5000, [&] { return ErrorFileLines() == episode; })) << i;
    }
    test::WriteFile(path_, "");
    Log(*output, "written");
    EXPECT_TRUE(test::WaitFor(5000, [&] { return Text() == "[x UTC] written\n"; })) << Text();
  }
  output.reset();
  ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &before));
  EXPECT_EQ(6, test::CountText(Console(), "log_file error " + path_));
  EXPECT_EQ(2, ErrorFileLines());
}

TEST_F(LogFileOutputTest, ARefusedRenameKeepsTheText) {
  std::filesystem::create_directories(path_ + ".1/occupied");
  auto output = Output();
  output->SetFileSize(50);
  output->Setup(path_);
  std::string expected;
  for (const char filling : {'1', '2', '3'}) {
    LogBytes(*output, 30, filling);
    expected += "[x UTC] " + std::string(21, filling) + "\n";
  }
  output.reset();
  EXPECT_EQ(expected, Text());
}

TEST_F(LogFileOutputTest, UnusableSettingsKeepTheInitialOnes) {
  LogFileOutput output;
  output.SetFileSize(0);
  output.SetRollingIndex(0);
  output.SetBufferSize(0);
  output.SetTimeStampFormat("");
  output.SetLogLevel(-1);
  output.SetLogLevel(6);
  EXPECT_TRUE(output.GetEnableBufferdIo());
  output.Setup(path_);
  output.LogOutput(kLogOutputLevelVerboseValue, "V", "T", "below");
  output.LogOutput(kLogOutputLevelDebugValue, "D", "T", std::string(8100, 'd'));
  EXPECT_FALSE(test::WaitFor(700, [&] { return !Text().empty(); }));
  output.LogOutput(kLogOutputLevelDebugValue, "D", "", std::string(100, 'd'));
  EXPECT_TRUE(test::WaitFor(5000, [&] { return test::Lines(Text()).size() == 2; }));
  EXPECT_EQ(26U, Text().find("[D] T ddd")) << "no milliseconds";
  EXPECT_EQ(0, test::CountText(Text(), "below"));
}

}  // namespace
}  // namespace tmsc
