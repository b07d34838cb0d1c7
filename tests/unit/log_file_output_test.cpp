#include "log/log_file_output.h"

#include <sys/resource.h>

#include <csignal>
#include <set>

#include "support/console.h"
#include "support/log_fixture.h"

extern std::atomic<int> fsync_count;  // card_file_test.cpp

namespace tmsc {
namespace {

class LogFileOutputTest : public test::LogFixture {
 protected:
  /// Lines of the form "[x UTC] message"; a line of n bytes has a message of n - 9.
  std::unique_ptr<LogFileOutput> Output(bool is_buffered = true) {
    auto output = std::make_unique<LogFileOutput>();
    output->SetTimeStampFormat("x");
    output->SetIsEnableBufferdIO(is_buffered);
    output->SetIoErrorFile(error_file_);
    return output;
  }
  static void Log(LogFileOutput& output, const std::string& message) {
    output.LogOutput(kLogOutputLevelErrorValue, "", "", message);
  }
  static void LogBytes(LogFileOutput& output, std::size_t size, char filling) {
    Log(output, std::string(size - 9, filling));
  }
  std::string Text(const std::string& suffix = "") const { return test::ReadFile(path_ + suffix); }
  int ErrorFileLines() const {
    return test::CountText(test::ReadFile(error_file_), "[x UTC] " + path_ + "\n");
  }
  bool WaitForSize(std::size_t size) const {
    return test::WaitFor(5000, [&] { return Text().size() == size; });
  }
  bool WaitForConsole(int count, const std::string& text) const {
    return test::WaitFor(5000, [&] { return test::CountText(console_.Text(), text) == count; });
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
  std::string Gone() const {
    return "[x UTC] [E] LogFlOut Card is gone, log lines are kept [" + path_ + "] \n";
  }
  std::string Back() const { return "[x UTC] [W] LogFlOut Card is back [" + path_ + "]\n"; }

  const test::Console console_;
  const std::string directory_ = folder_.Path("card");
  const std::string path_ = directory_ + "/com.log";
  const std::string error_file_ = folder_.Path("error_file");
};

TEST_F(LogFileOutputTest, BufferedModeWaitsForTheThresholdOrAFlush) {
  auto output = std::make_unique<LogFileOutput>();
  // None of these counts.
  output->SetFileSize(0);
  output->SetRollingIndex(0);
  output->SetBufferSize(0);
  output->SetTimeStampFormat("");
  output->SetLogLevel(-1);
  output->SetLogLevel(6);
  const auto log = [&](std::size_t bytes) {
    output->LogOutput(kLogOutputLevelVerboseValue, "V", "", std::string(bytes, 'v'));
    output->LogOutput(kLogOutputLevelDebugValue, "D", "T", std::string(bytes - 33, 'd'));
  };
  log(1000);
  Poco::Timer no_timer;
  output->Execute(no_timer);  // nowhere to write to yet
  output->Setup(path_);
  log(7100);
  EXPECT_FALSE(test::WaitFor(1200, [&] { return !Text().empty(); }));
  log(92);  // exactly the threshold
  EXPECT_TRUE(WaitForSize(8192));
  EXPECT_EQ(Text().find("UTC] [D] T ddd"), 21) << "no milliseconds";
  EXPECT_EQ(fsync_count, 0) << "the card is spared";
  log(50);
  output->Flush();
  EXPECT_TRUE(test::WaitFor(5000, [] { return fsync_count == 2; }));
  EXPECT_EQ(Text().size(), 8242);
  log(8191);
  EXPECT_FALSE(test::WaitFor(1200, [&] { return Text().size() > 8242; }))
      << "the count starts afresh after a flush";
  output.reset();
  EXPECT_EQ(Text().size(), 8242 + 8191) << "the end writes what is queued";
  EXPECT_EQ(fsync_count, 4);
}

TEST_F(LogFileOutputTest, RotatesBySize) {
  const std::string letters = "abcdefghijklmno";
  const struct {
    unsigned int limit, copies;
    std::vector<std::size_t> sizes;  // of lines a, b, ...; the first stands in the file already
    int occupied;                    // the copy whose name is taken
    std::vector<std::string> files;  // the lines in the live file and in each copy
  } rows[] = {{1000, 2, {900, 80, 80, 920}, 0, {"cd", "ab", ""}},
              {100, 9, {60, 500, 60, 40}, 0, {"cd", "b", "a", ""}},
              {50, 1, {40, 40, 40}, 0, {"c", "b", ""}},
              {50,
               12,
               std::vector<std::size_t>(15, 40),
               0,
               {"o", "n", "m", "l", "k", "j", "i", "h", "g", "f", "e", "d", "c", ""}},
              {50, ~0U, {40, 40}, 0, {"b", "a", ""}},
              {50, 3, {40, 40, 40, 40, 40}, 3, {"e", "d", "c"}},
              {50, 1, {40, 40, 40}, 1, {"abc"}}};
  for (const auto& row : rows) {
    SCOPED_TRACE(std::to_string(row.limit) + " " + std::to_string(row.copies));
    std::filesystem::create_directories(directory_);
    if (row.occupied > 0) {
      std::filesystem::create_directories(path_ + "." + std::to_string(row.occupied) + "/occupied");
    }
    auto output = Output();
    output->SetFileSize(row.limit);
    output->SetRollingIndex(row.copies);
    for (std::size_t i = 0; i < row.sizes.size(); ++i) {
      if (i == 0) {
        test::WriteFile(path_, std::string(row.sizes[0] - 1, 'a') + "\n");
        output->Setup(path_);
      } else {
        LogBytes(*output, row.sizes[i], letters[i]);
      }
    }
    output.reset();
    for (std::size_t i = 0; i < row.files.size(); ++i) {
      std::string lines;
      for (const std::string& line : test::Lines(Text(i == 0 ? "" : "." + std::to_string(i)))) {
        lines += line.back();
      }
      EXPECT_EQ(lines, row.files[i]) << i;
    }
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
  EXPECT_TRUE(WaitForSize(15)) << "a flush writes what was queued before";
  FileUtil::GetInstance()->SetLogWriteEnable(true);
  Log(*output, "after");
  output.reset();
  EXPECT_EQ(Text(), "[x UTC] before\n[x UTC] after\n");
  EXPECT_EQ(console_.Text(),
            "com.log [x UTC] before\ncom.log [x UTC] between\ncom.log [x UTC] after\n");
}

TEST_F(LogFileOutputTest, ATimeWithoutACardLeavesALineAtEachEnd) {
  auto output = Output(false);
  output->Setup(path_);
  RemoveCard();
  Log(*output, "first");
  ASSERT_TRUE(WaitForConsole(1, Gone()));
  Log(*output, "second");  // goes to the other buffer
  test::SleepMs(1700);
  EXPECT_EQ(ErrorFileLines(), 1);
  InsertCard();
  const std::string text = Gone() + "[x UTC] second\n" + Back() + "[x UTC] first\n";
  const std::string other = Gone() + "[x UTC] first\n" + Back() + "[x UTC] second\n";
  EXPECT_TRUE(test::WaitFor(5000, [&] { return Text() == text || Text() == other; })) << Text();

  std::filesystem::remove(path_);
  output->Flush();
  test::SleepMs(1200);
  Log(*output, "new file");
  EXPECT_TRUE(WaitForSize(17));
  std::filesystem::create_hard_link(error_file_, error_file_ + ".2");
  RemoveCard();
  Log(*output, "third");
  ASSERT_TRUE(WaitForConsole(2, Gone()));
  InsertCard();
  output.reset();
  EXPECT_EQ(Text(), "[x UTC] new file\n" + Gone() + "[x UTC] third\n" + Back());
  EXPECT_EQ(ErrorFileLines(), 1) << "a flush of nothing is no failure; no writing to a link";
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
  ASSERT_TRUE(WaitForConsole(1, Gone()));
  for (int i = 0; i < kCount; ++i) {
    Log(*output, std::to_string(i) + " " + std::string(kLine, 'k'));
  }
  test::SleepMs(1200);  // the bound holds also through some vain attempts
  InsertCard();
  output.reset();
  const std::string text = Text();
  EXPECT_GT(text.size(), kBound - kBound / 16);
  EXPECT_LT(text.size(), kBound + kLine);
  std::set<int> numbers;  // two buffers: each in order, not the two together
  for (const std::string& line : test::Lines(text)) {
    if (line.size() > kLine) {
      EXPECT_TRUE(numbers.insert(std::stoi(line.substr(8))).second);
    }
  }
  const int kept = static_cast<int>(numbers.size());
  ASSERT_GT(kept, 0);
  EXPECT_EQ(*numbers.begin(), kCount - kept) << "the newest are kept";
  EXPECT_EQ(*numbers.rbegin(), kCount - 1);
  EXPECT_EQ(text.find(Gone() + "[x UTC] [W] LogFlOut Log lines lost while the card was gone [" +
                      std::to_string(kCount + 1 - kept) + "]"),
            0);
}

TEST_F(LogFileOutputTest, AFullCardLosesTextAndLeavesOneLineAnEpisode) {
  // The limit on file sizes stands for the card's end.
  const std::uintmax_t room = 1024 * 1024;
  std::signal(SIGXFSZ, SIG_IGN);
  rlimit limit{};
  ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &limit), 0);
  limit.rlim_cur = static_cast<rlim_t>(room);
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  auto output = Output();
  output->SetFileSize(static_cast<unsigned int>(room) + 20);
  output->SetRollingIndex(2);
  output->Setup(path_);
  for (int episode = 1; episode <= 2; ++episode) {
    for (int i = 1; i <= 3; ++i) {
      test::WriteFile(path_, "");
      std::filesystem::resize_file(path_, room - 5);  // a part of a line still fits
      Log(*output, "lost");
      Log(*output, "lost");
      output->Flush();
      EXPECT_TRUE(WaitForConsole(6 * episode - 6 + 2 * i, "log_file error " + path_ + "\n"));
      EXPECT_EQ(ErrorFileLines(), episode) << i;
    }
    test::WriteFile(path_, "");
    Log(*output, "written");
    output->Flush();
    EXPECT_TRUE(WaitForSize(16));
  }
  EXPECT_FALSE(std::filesystem::exists(path_ + ".1")) << "a copy for text that was not written";
  limit.rlim_cur = 0;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  for (int i = 0; i < 4; ++i) {
    LogBytes(*output, room + 50, 'x');
  }
  output.reset();
  limit.rlim_cur = limit.rlim_max;
  ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  EXPECT_EQ(Text(".1"), "[x UTC] written\n") << "a copy for nothing";
}

}  // namespace
}  // namespace tmsc
