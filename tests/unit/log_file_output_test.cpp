#include "log/log_file_output.h"

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>

#include <csignal>

#include "log/log_condition.h"
#include "support/console.h"
#include "support/log_fixture.h"

extern std::atomic<int> fsync_count;     // card_file_test.cpp
extern std::atomic<bool> is_fsync_held;  // card_file_test.cpp
extern std::atomic<int> syncfs_error;
extern std::map<std::string, std::uintmax_t> files_on_card;

// In place of the C library's: the first look at this file finds the card failing.
std::string unreadable;
extern "C" int stat(const char* path, struct stat* status) noexcept {
  if (!unreadable.empty() && unreadable == path) {
    unreadable.clear();
    errno = EIO;
    return -1;
  }
  return ::fstatat(AT_FDCWD, path, status, 0);
}

namespace tmsc {

namespace fs = std::filesystem;

/// Lines of the form "[x UTC] message"; a line of n bytes has a message of n - 9.
class LogFileOutputTest : public test::LogFixture {
 protected:
  void SetUpOutput(bool is_buffered, unsigned int file_size = 0, unsigned int copies = 0) {
    output_ = std::make_unique<LogFileOutput>();
    output_->SetTimeStampFormat("x");
    output_->SetIsEnableBufferdIO(is_buffered);
    output_->SetFileSize(file_size);
    output_->SetRollingIndex(copies);
    output_->SetIoErrorFile(error_file_);
    output_->Setup(path_);
  }
  void Log(const std::string& message) {
    output_->LogOutput(kLogOutputLevelErrorValue, "", "", message);
  }
  std::string Text() const { return test::ReadFile(path_); }
  bool WaitForText(const std::string& text) const {
    return test::WaitFor(5000, [&] { return Text() == text; });
  }
  bool WaitForConsole(int count, const std::string& text) const {
    return test::WaitFor(5000, [&] { return test::CountText(console_.Text(), text) == count; });
  }
  int ErrorLines() const { return test::CountText(test::ReadFile(error_file_), path_ + "\n"); }
  /// Puts something else in the card's place, or the card back.
  void SwapCard() const {
    const std::string other = folder_.Path("other");
    ASSERT_EQ(::renameat2(AT_FDCWD, other.c_str(), AT_FDCWD, directory_.c_str(), RENAME_EXCHANGE),
              0);
  }

  const test::Console console_;
  const std::string directory_ = folder_.Path("card");
  const std::string path_ = directory_ + "/com.log";
  const std::string error_file_ = folder_.Path("error_file");
  const std::string gone_ =
      "[x UTC] [E] LogFlOut Card is gone, log lines are kept [" + path_ + "] \n";
  const std::string back_ = "[x UTC] [W] LogFlOut Card is back [" + path_ + "]\n";
  std::unique_ptr<LogFileOutput> output_;
};

TEST_F(LogFileOutputTest, BufferedModeWaitsForTheThresholdOrAFlush) {
  output_ = std::make_unique<LogFileOutput>();
  output_->SetBufferSize(0);  // none of these counts
  output_->SetTimeStampFormat("");
  const auto log = [&](std::size_t bytes) { Log(std::string(bytes - 27, 'd')); };
  const auto is_size = [&](std::size_t size) { return Text().size() == size; };
  log(1000);
  Poco::Timer no_timer;
  output_->Execute(no_timer);  // nowhere to write to yet
  output_->Setup(path_);
  log(7151);
  test::SleepMs(1200);
  EXPECT_TRUE(is_size(0));
  log(41);
  EXPECT_TRUE(test::WaitFor(5000, [&] { return is_size(8192); }));
  EXPECT_EQ(Text().find("UTC] ddd"), 21) << "no milliseconds";
  EXPECT_EQ(fsync_count, 0) << "the card is spared";
  log(8191);
  output_->Flush();
  EXPECT_TRUE(test::WaitFor(5000, [] { return fsync_count == 3; }));
  log(8191);
  test::SleepMs(1200);
  EXPECT_TRUE(is_size(8192 + 8191)) << "the count starts afresh after a flush";
  output_.reset();
  EXPECT_TRUE(is_size(8192 + 2 * 8191)) << "the end writes what is queued";
  EXPECT_EQ(fsync_count, 6);
}

TEST_F(LogFileOutputTest, RotatesBySize) {
  const struct {
    unsigned int limit, copies;
    std::vector<std::size_t> sizes;  // of lines a, b, ...
    std::string occupied;            // the copy whose name is taken
    std::string files;               // the lines in the live file and in each copy
  } rows[] = {{1000, ~0U, {900, 80, 80, 920, 5000, 60}, "", "f.e.cd.ab.."},
              {50, 0, {40, 40, 40}, "", "c.b...."},
              {50, 3, {40, 40, 40, 40, 40, 40}, "", "f.e.d.c.."},
              {50, 3, {40, 40, 40, 40, 40}, ".3", "e.d.c..."},
              {50, 1, {40, 40, 40, 40}, ".1", "cd....."},
              {50, 1, {60, 60, 60, 60}, ".1", "cd....."}};
  for (const auto& row : rows) {
    fs::create_directories(row.occupied.empty() ? directory_ : path_ + row.occupied + "/occupied");
    SetUpOutput(true, row.limit, row.copies);
    for (std::size_t i = 0; i < row.sizes.size(); ++i) {
      Log(std::string(row.sizes[i] - 9, "abcdef"[i]));
    }
    output_.reset();
    std::string files;
    for (const char* copy : {"", ".1", ".2", ".3", ".4"}) {
      const std::string path = path_ + copy;
      for (const auto& line : test::Lines(fs::is_directory(path) ? "" : test::ReadFile(path))) {
        files += line.back();
      }
      files += '.';
    }
    EXPECT_EQ(files, row.files);
    fs::remove_all(directory_);
  }
}

TEST_F(LogFileOutputTest, ARotationEndsOnTheCard) {
  for (const bool is_refused : {false, true}) {
    syncfs_error = is_refused ? EIO : 0;
    SetUpOutput(false, 50, 1);
    Log(std::string(31, 'a'));
    Log(std::string(31, 'b'));
    if (is_refused) {  // the next flush makes up for it
      EXPECT_TRUE(WaitForConsole(1, "log_file error " + path_ + "\n"));
      syncfs_error = 0;
    }
    output_.reset();
    using Files = std::map<std::string, std::uintmax_t>;
    EXPECT_EQ(files_on_card, (Files{{"com.log", is_refused ? 40 : 0}, {"com.log.1", 40}}));
    fs::remove_all(directory_);
  }
}

TEST_F(LogFileOutputTest, WhatACardCannotTellIsLeftAlone) {
  for (const char* copy : {"", ".1"}) {  // the live file and a copy, at the rotation
    fs::remove_all(directory_);
    fs::create_directories(directory_);
    test::WriteFile(path_, "live\n");
    test::WriteFile(path_ + ".1", "copy\n");
    unreadable = path_ + copy;
    SetUpOutput(false, 50, 2);
    Log(std::string(35, 'a'));
    Log(std::string(31, 'b'));
    output_.reset();
    EXPECT_EQ(unreadable, "") << "it was looked at";
    EXPECT_EQ(test::ReadFile(path_ + ".1").substr(0, 5), "live\n");
    EXPECT_EQ(test::ReadFile(path_ + ".2"), "copy\n");
  }
}

TEST_F(LogFileOutputTest, NothingIsWrittenThroughALink) {
  fs::create_directories(directory_);
  fs::create_symlink(folder_.Path("elsewhere"), path_);
  const std::string gone =
      "[x UTC] [E] LogFlOut Card is gone, log lines are kept [" + path_ + "] it is a link\n";
  SetUpOutput(false);
  Log("kept");
  EXPECT_TRUE(WaitForConsole(1, gone)) << "it leads nowhere";
  test::WriteFile(folder_.Path("elsewhere"), "of others");
  test::SleepMs(600);
  EXPECT_TRUE(fs::is_symlink(path_));
  EXPECT_EQ(test::ReadFile(folder_.Path("elsewhere")), "of others");
  fs::remove(path_);
  output_.reset();
  EXPECT_EQ(Text(), gone + "[x UTC] kept\n" + back_);
}

TEST_F(LogFileOutputTest, WriteSwitchOffEchoesOnly) {
  SetUpOutput(false);
  Log("before");
  FileUtil::GetInstance()->SetLogWriteEnable(false);
  Log("between");
  output_->Flush();
  EXPECT_TRUE(WaitForText("[x UTC] before\n")) << "a flush writes what was queued before";
  FileUtil::GetInstance()->SetLogWriteEnable(true);
  Log("after");
  output_.reset();
  EXPECT_EQ(Text(), "[x UTC] before\n[x UTC] after\n");
  EXPECT_EQ(console_.Text(),
            "com.log [x UTC] before\ncom.log [x UTC] between\ncom.log [x UTC] after\n");
}

TEST_F(LogFileOutputTest, ATimeWithoutACardLeavesALineAtEachEnd) {
  test::WriteFile(folder_.Path("other"), "");
  SetUpOutput(false);
  const std::string before = std::string(2000000, 'b');  // what was written is no longer kept
  Log(before);
  EXPECT_TRUE(WaitForText("[x UTC] " + before + "\n"));
  SwapCard();
  Log("0 kkk");
  ASSERT_TRUE(WaitForConsole(1, gone_));
  for (int i = 1; i < 400; ++i) {
    test::SleepMs(i == 200 ? 500 : 0);  // the rest goes to the other buffer
    Log(std::to_string(i) + " " + std::string(16 * 1024, 'k'));
  }
  test::SleepMs(1200);  // some vain attempts
  SwapCard();
  output_.reset();
  const std::string kept = Text();
  EXPECT_NEAR(double(kept.size()), 6.1e6, 1e5);  // 4 MiB at most
  const std::string lost = std::to_string(400 - test::CountText(kept, " kkk"));
  EXPECT_EQ(test::CountText(kept, "UTC] " + lost + " kkk"), 1) << "the newest are kept";
  EXPECT_EQ(
      kept.find("[x UTC] " + before + "\n" + gone_ +
                "[x UTC] [W] LogFlOut Log lines lost while the card was gone [" + lost + "]\n"),
      0);
  EXPECT_EQ(test::CountText(kept, back_), 1);
  EXPECT_EQ(test::CountText(console_.Text(), gone_), 1);
  EXPECT_EQ(ErrorLines(), 1);
}

TEST_F(LogFileOutputTest, AWriteThatHangsKeepsNoMoreLines) {
  SetUpOutput(true);
  is_fsync_held = true;
  Log("first");
  output_->Flush();
  ASSERT_TRUE(test::WaitFor(5000, [] { return fsync_count == 1; }));
  for (int i = 0; i < 400; ++i) {
    Log(std::string(16 * 1024, 'h'));
  }
  is_fsync_held = false;
  output_.reset();
  EXPECT_NEAR(double(Text().size()), 4.1e6, 1e5);
}

TEST_F(LogFileOutputTest, AFullCardLosesTextUntilARotationMakesRoom) {
  // The limit on file sizes stands for the card's end.
  constexpr unsigned int kRoom = 1024 * 1024;
  std::signal(SIGXFSZ, SIG_IGN);
  const auto limit_files = [](rlim_t size) {
    const rlimit limit{size, RLIM_INFINITY};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &limit), 0);
  };
  limit_files(kRoom);
  SetUpOutput(true, kRoom + 20, 2);
  for (int i = 1; i <= 3; ++i) {  // an episode each
    test::WriteFile(path_, "");
    Log("written");
    output_->Flush();
    EXPECT_TRUE(WaitForText("[x UTC] written\n"));
    EXPECT_TRUE(test::WaitFor(2000, [] { return !log_condition.is_card_gone; }));
    fs::resize_file(path_, kRoom - 5);  // a part of a line still fits
    Log("lost");
    output_->Flush();
    EXPECT_TRUE(WaitForConsole(i, "log_file error " + path_ + "\n"));
    EXPECT_TRUE(log_condition.is_card_gone);
    EXPECT_TRUE(test::WaitFor(2000, [&] { return ErrorLines() == std::min(i, 2); }))
        << ErrorLines() << ": no writing to a link";
    if (i == 2) {
      fs::create_hard_link(error_file_, error_file_ + ".2");
    }
  }
  Log("lost");
  Log("lives on");
  output_.reset();
  limit_files(RLIM_INFINITY);
  EXPECT_EQ(Text(), "[x UTC] lives on\n");
  EXPECT_EQ(fs::file_size(path_ + ".1"), kRoom);
}

}  // namespace tmsc
