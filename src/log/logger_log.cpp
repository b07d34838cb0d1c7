#include "log/logger_log.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "log/log_file_output.h"
#include "logger_setting/logger_setting_manager.h"
#include "utility/constant_string.h"
#include "utility/deadline.h"
#include "utility/file_util.h"
#include "utility/string_util.h"

namespace tmsc {

namespace {

const std::string& kFlushTag = ConstantString("LoggerLog");

// Longest time that Shutdown waits for log calls in progress. None waits for anything, but its
// thread may not get the processor; the output is then left behind alive rather than deleted under
// the call.
constexpr std::chrono::milliseconds kShutdownWait{500};

std::atomic<LogFileOutput*> logger_com_file_output_{nullptr};
// Calls that may hold the pointer above. Each counts itself in before it reads the pointer, and
// Shutdown clears the pointer before it reads the count, so a call sees no output or is waited for.
std::atomic<int> calls_in_progress_{0};

class CallInProgress {
 public:
  CallInProgress() { ++calls_in_progress_; }
  ~CallInProgress() { --calls_in_progress_; }
  CallInProgress(const CallInProgress&) = delete;
  CallInProgress& operator=(const CallInProgress&) = delete;
};

void Log(int level, const std::string& level_string, const std::string& tag,
         const std::string& message) {
  if (logger_com_file_output_ == nullptr) {
    return;  // uncounted: calls that come after the end do not make Shutdown wait for them
  }
  const CallInProgress call;
  if (LogFileOutput* output = logger_com_file_output_.load()) {
    output->LogOutput(level, level_string, tag, message);
  }
}

/// A setting that counts something, as the output takes it: 0 stands for a value that it ignores.
unsigned int CountOrIgnored(int setting) {
  return static_cast<unsigned int>(std::max(setting, 0));
}

}  // namespace

void LoggerLog::Setup() {
  LoggerSettingManager* settings = LoggerSettingManager::GetInstance();
  const std::string directory = settings->GetLogDirectory();
  if (!FileUtil::IsFileExists(directory)) {
    FileUtil::CreateDirectory(directory, true);
  }
  auto* const output = new LogFileOutput;
  output->SetTimeStampFormat(kLogTimeStampFormatMs);
  // Calls find the output from here on: what goes wrong in the following steps is logged, too.
  logger_com_file_output_ = output;
  output->SetFileSize(
      CountOrIgnored(StringUtil::StringFileSizeToLogFileSize(settings->GetMaxLogFileSize())));
  output->SetRollingIndex(CountOrIgnored(settings->GetMaxLogRollIndex()));
  output->SetLogLevel(settings->GetLogLevel());
  output->SetIsEnableBufferdIO(settings->IsEnableLogBufferedIO());
  output->SetBufferSize(CountOrIgnored(settings->GetLoggerLogMaxBufferdSize()));
  output->Setup(directory + "/LoggerCom.log");
}

void LoggerLog::Shutdown() {
  std::unique_ptr<LogFileOutput> output(logger_com_file_output_.exchange(nullptr));
  if (!output) {
    return;
  }
  const Deadline deadline(kShutdownWait);
  while (calls_in_progress_ > 0 && !deadline.HasPassed()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (calls_in_progress_ > 0) {
    output->Finish();
    static_cast<void>(output.release());
  }
}

void LoggerLog::Verbose(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelVerboseValue, kLogOutputLevelVerboseString, tag, message);
}

void LoggerLog::Debug(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelDebugValue, kLogOutputLevelDebugString, tag, message);
}

void LoggerLog::Info(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelInfoValue, kLogOutputLevelInfoString, tag, message);
}

void LoggerLog::Warn(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelWarnValue, kLogOutputLevelWarnString, tag, message);
}

void LoggerLog::Error(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelErrorValue, kLogOutputLevelErrorString, tag, message);
}

void LoggerLog::Fatal(const std::string& tag, const std::string& message) {
  Log(kLogOutputLevelFatalValue, kLogOutputLevelFatalString, tag, message);
}

void LoggerLog::Flush() {
  Verbose(kFlushTag, "FlushLoggerLog.");
  const CallInProgress call;
  LogFileOutput* output = logger_com_file_output_.load();
  if (output != nullptr && output->GetEnableBufferdIo()) {
    output->Flush();
  }
}

}  // namespace tmsc
