#include "log/logger_log.h"

#include <Poco/RegularExpression.h>

#include <atomic>
#include <ctime>
#include <filesystem>
#include <map>
#include <thread>

#include "support/log_fixture.h"
#include "utility/string_util.h"

namespace tmsc {
namespace {

using LoggerLogTest = test::LogFixture;

TEST_F(LoggerLogTest, LevelsAndLineFormat) {
  const struct {
    const char* setting;
    const char* letters;
  } rows[] = {{"0", "VDIWEF"}, {"1", "DIWEF"},  {"3", "WEF"},   {"5", "F"},
              {"6", "DIWEF"},  {"-1", "DIWEF"}, {"x", "DIWEF"}, {"", "DIWEF"}};
  for (const auto& row : rows) {
    LoggerLog::Fatal("T", "before the set-up");
    ::testing::internal::CaptureStdout();
    StartLog({{"LogLevel", row.setting}});
    LoggerLog::Verbose("T", "x");
    LoggerLog::Debug("T", "x");
    LoggerLog::Info("T", "x");
    LoggerLog::Warn("T", "x");
    LoggerLog::Error("T", "x");
    LoggerLog::Fatal("", "x");
    const std::string text = StopLog();
    LoggerLog::Fatal("T", "after the end");
    const std::string console = ::testing::internal::GetCapturedStdout();

    std::string pattern;
    for (const char* letter = row.letters; *letter != '\0'; ++letter) {
      pattern += R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UTC\] \[)" + std::string(1, *letter) +
                 (*letter == 'F' ? R"(\] x\n)" : R"(\] T x\n)");
    }
    EXPECT_TRUE(Poco::RegularExpression(pattern).match(text)) << row.setting << "\n" << text;
    std::string echo;
    for (const std::string& line : test::Lines(text)) {
      echo += "LoggerCom.log " + line + "\n";
    }
    EXPECT_EQ(echo, console);
    FileUtil::CreateFile(log_path_);
  }
}

TEST_F(LoggerLogTest, FlushWritesWithinOneTick) {
  ::setenv("TZ", "XYZ-9", 1);  // lines stay in universal time
  StartLog({{"LogLevel", "0"}});
  LoggerLog::Info("T", "x");
  EXPECT_EQ("", LogText());
  LoggerLog::Flush();
  EXPECT_TRUE(test::WaitFor(5000, [&] { return test::CountText(LogText(), "T x") == 1; }));
  EXPECT_EQ(1, test::CountText(LogText(), "[V] LoggerLog FlushLoggerLog."));
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  ::gmtime_r(&now, &utc);
  char hour[32] = {};
  std::strftime(hour, sizeof(hour), "[%Y-%m-%d", &utc);
  EXPECT_EQ(0U, LogText().find(hour));
}

/// Numbered lines "thread number filling" of several threads: each whole, none lost, in the order
/// in which its thread logged them. Returns how many there are.
int CheckLines(const std::string& text) {
  std::map<int, int> next;
  int count = 0;
  const Poco::RegularExpression pattern(R"(^\[.{23} UTC\] \[I\] T (\d+) (\d+) (x*)\.$)");
  for (const std::string& line : test::Lines(text)) {
    std::vector<std::string> match;
    if (pattern.split(line, match) != 4) {
      ADD_FAILURE() << "torn line " << line;
      return -1;
    }
    const int number = std::stoi(match[2]);
    EXPECT_EQ(next[std::stoi(match[1])]++, number) << line;
    EXPECT_EQ(static_cast<std::size_t>(number % 90), match[3].size()) << line;
    ++count;
  }
  return count;
}

void LogNumbered(int thread, int number) {
  LoggerLog::Info("T", std::to_string(thread) + " " + std::to_string(number) + " " +
                           std::string(static_cast<std::size_t>(number % 90), 'x') + ".");
}

TEST_F(LoggerLogTest, LinesOfManyThreadsAreWholeAndNoneIsLost) {
  constexpr int kThreads = 16;
  constexpr int kLines = 2000;
  ::testing::internal::CaptureStdout();
  StartLog({{"LoggerComLogMaxFileSize", "100MB"}});
  std::vector<std::thread> threads;
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([thread] {
      for (int number = 0; number < kLines; ++number) {
        LogNumbered(thread, number);
        if (number % 500 == 0) {
          std::this_thread::sleep_for(std::chrono::milliseconds(200));  // across some ticks
          LoggerLog::Flush();
        }
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  const std::string text = StopLog();
  EXPECT_EQ(kThreads * kLines,
            test::CountText(::testing::internal::GetCapturedStdout(), "LoggerCom.log ["));
  EXPECT_EQ(kThreads * kLines, CheckLines(text));
}

TEST_F(LoggerLogTest, CallsRacingTheEndAreHarmless) {
  ::testing::internal::CaptureStdout();
  std::atomic<bool> is_over{false};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&is_over, thread] {
      while (!is_over) {
        LoggerLog::Info("T", std::to_string(thread) + " whole.");
        LoggerLog::Flush();
        std::this_thread::sleep_for(std::chrono::microseconds(20));
      }
    });
  }
  int count = 0;
  for (int round = 0; round < 10; ++round) {
    LoggerLog::Setup();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    for (const std::string& line : test::Lines(StopLog())) {
      EXPECT_TRUE(StringUtil::EndWith(line, " whole.")) << line;
      ++count;
    }
  }
  is_over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_GT(count, 0);
  ::testing::internal::GetCapturedStdout();
}

TEST_F(LoggerLogTest, TheEndDoesNotWaitForCallsThatCameLater) {
  ::testing::internal::CaptureStdout();
  std::atomic<bool> is_over{false};
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 16; ++thread) {
    threads.emplace_back([&is_over] {
      while (!is_over) {
        LoggerLog::Info("T", "x");
      }
    });
  }
  int full_waits = 0;
  for (int round = 0; round < 6; ++round) {
    LoggerLog::Setup();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const test::Stopwatch start;
    LoggerLog::Shutdown();
    full_waits += start.Ms() >= 490 ? 1 : 0;
  }
  is_over = true;
  for (std::thread& thread : threads) {
    thread.join();
  }
  ::testing::internal::GetCapturedStdout();
  EXPECT_LE(full_waits, 1);  // at its limit it leaves the output behind
}

TEST_F(LoggerLogTest, RefusedRenamesDoNotFeedTheLog) {
  for (const char* copy : {".1", ".2", ".3"}) {
    std::filesystem::create_directories(log_path_ + copy + "/occupied");
  }
  test::WriteFile(log_path_, std::string(100, 'o'));
  ::testing::internal::CaptureStdout();
  StartLog({{"LoggerComLogMaxFileSize", "100B"},
            {"LoggerComLogMaxRollIndex", "3"},
            {"EnableLogBufferedIO", "0"}});
  LoggerLog::Info("T", "x");
  const bool is_written =
      test::WaitFor(5000, [&] { return test::CountText(LogText(), "T x") == 1; });
  const auto count = [&] { return test::CountText(LogText(), "[E] FlUtil Rename file"); };
  const bool is_fed = test::WaitFor(2600, [&] { return count() > 20; });
  StopLog();
  ::testing::internal::GetCapturedStdout();
  EXPECT_TRUE(is_written);
  EXPECT_FALSE(is_fed) << "one line caused " << count() << " more";
}

}  // namespace
}  // namespace tmsc
