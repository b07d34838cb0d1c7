#include "log/logger_log.h"

#include <Poco/RegularExpression.h>

#include <atomic>
#include <ctime>
#include <future>
#include <map>

#include "common/time_stamp.h"
#include "support/console.h"
#include "support/log_fixture.h"

namespace tmsc {

using LoggerLogTest = test::LogFixture;

TEST_F(LoggerLogTest, LevelsAndLineFormat) {
  const std::string fatal = "F] x\n", warn = "W] T x\nE] T x\n" + fatal;
  const std::string debug = "D] T x\nI] T x\n" + warn;
  const std::string all = "V] T x\n" + debug + "V] LoggerLog FlushLoggerLog.\n";
  const std::pair<const char*, std::string> rows[] = {
      {"0", all}, {"3", warn}, {"5", fatal}, {"6", debug}, {"-1", debug}};
  for (const auto& [setting, lines] : rows) {
    LoggerLog::Fatal("T", "before the set-up");
    StartLog({{"LogLevel", setting}});
    for (const auto log : {LoggerLog::Verbose, LoggerLog::Debug, LoggerLog::Info, LoggerLog::Warn,
                           LoggerLog::Error}) {
      log("T", "x");
    }
    LoggerLog::Fatal("", "x");
    LoggerLog::Flush();
    EXPECT_TRUE(test::WaitFor(2000, [&] { return test::Contains(LogText(), "] x\n"); }));
    std::string text = StopLog();
    LoggerLog::Fatal("T", "after the end");
    Poco::RegularExpression(R"(\[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} UTC\] \[)")
        .subst(text, "", Poco::RegularExpression::RE_GLOBAL);
    EXPECT_EQ(text, lines) << setting;
    test::WriteFile(log_path_, "");
  }
}

TEST(TimeStamp, IsNowInUniversalTime) {
  ::setenv("TZ", "XYZ-9", 1);
  std::tm time{};
  ::strptime(TimeStamp().StringFromFormat("%Y%m%d %H:%M:%S").c_str(), "%Y%m%d %H:%M:%S", &time);
  EXPECT_NEAR(double(::timegm(&time)), double(std::time(nullptr)), 1);
  // What is remembered of a format is the same as what it gives with more behind it.
  for (const test::Stopwatch watch; watch.Ms() < 3000;) {
    for (const std::string format : {"%H:%M:%S.%i", "%S %F", "%s", "%S%%i"}) {
      TimeStamp().StringFromFormat(format);
      test::SleepMs(2);
      TimeStamp stamp;
      const std::string text = stamp.StringFromFormat(format);
      ASSERT_EQ(text, stamp.StringFromFormat(format + "%i%i").substr(0, text.size()));
    }
  }
}

TEST_F(LoggerLogTest, LinesAreWholeAndTheEndWaitsForNobody) {
  UseSettings({{"LoggerComLogMaxFileSize", "100MB"}});
  std::atomic<bool> is_over{false};
  std::vector<std::future<void>> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.push_back(std::async(std::launch::async, [&is_over, thread] {
      const test::Stopwatch watch;
      for (int number = 0; !is_over && watch.Ms() < 20000; ++number) {
        LoggerLog::Info(std::to_string(thread), std::to_string(number) + " whole.");
        if (number % 50 == 0) {
          LoggerLog::Flush();
          test::SleepMs(20);
        }
      }
    }));
    // Calls that begin after the end are not waited for, however many there are.
    threads.push_back(std::async(std::launch::async, [&is_over] {
      for (const test::Stopwatch watch; !is_over && watch.Ms() < 20000;) {
        LoggerLog::Verbose("T", "x");
      }
    }));
  }
  int full_waits = 0;
  for (int round = 0; round < 20; ++round) {
    LoggerLog::Setup();
    test::SleepMs(round == 0 ? 1200 : 20);  // across some ticks
    const test::Stopwatch watch;
    LoggerLog::Shutdown();
    full_waits += watch.Ms() >= 490 ? 1 : 0;
    std::map<int, int> next;  // a thread's lines of a round follow each other
    for (const std::string& line : test::Lines(LogText())) {
      int thread = 0, number = 0;
      char end = ' ';
      ASSERT_EQ(std::sscanf(line.c_str() + 30, "[I] %d %d whole%c", &thread, &number, &end), 3)
          << line;
      EXPECT_EQ(number, next.try_emplace(thread, number).first->second++) << line;
    }
    test::WriteFile(log_path_, "");
  }
  is_over = true;
  EXPECT_LE(full_waits, 1);  // at its limit it leaves the output behind
}

TEST_F(LoggerLogTest, RefusedRenamesDoNotFeedTheLog) {
  const test::Console console;
  for (const char* copy : {".1", ".2", ".3"}) {
    std::filesystem::create_directories(log_path_ + copy + "/occupied");
  }
  test::WriteFile(log_path_, std::string(100, 'o'));
  StartLog({{"LoggerComLogMaxFileSize", "100B"},
            {"LoggerComLogMaxRollIndex", "3"},
            {"EnableLogBufferedIO", "0"}});
  LoggerLog::Info("T", "x");
  EXPECT_TRUE(test::WaitFor(5000, [&] { return test::Contains(LogText(), "T x"); }));
  test::SleepMs(2600);
  StopLog();
  EXPECT_EQ(test::CountText(console.Text(), "[E] FlUtil Rename file"), 3);
}

}  // namespace tmsc
