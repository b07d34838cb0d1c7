#include "log/log_file_output.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/ScopedLock.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <numeric>

#include "common/time_stamp.h"
#include "utility/deadline.h"
#include "utility/descriptor.h"
#include "utility/file_util.h"

namespace tmsc {

Poco::Mutex& io_file_error_mutex_ = *new Poco::Mutex;  // never destroyed

namespace {

using Lock = Poco::ScopedLock<Poco::Mutex>;

const std::string& kLogTag = ConstantString("LogFlOut");
const std::string& kLoggerIoFileErrorFile = ConstantString("/tmp/logger_io_file_error");
constexpr long kLogFileWriteCycleTimeMs = 500;
constexpr unsigned int kLogFileInitializeFileSize = 10 * 1024 * 1024;
constexpr unsigned int kLogFileInitializeRollIndex = 1;
constexpr int kLogFileInitializeLogLevel = kLogOutputLevelDebugValue;
constexpr unsigned int kLogFileInitializeBufferSize = 8 * 1024;

// While the card is gone, the oldest lines go when more than this is kept, so many at a time that
// the buffers are not shifted for every new line.
constexpr std::size_t kKeptBytesMax = 4 * 1024 * 1024;
constexpr std::size_t kKeptBytesAfterDrop = kKeptBytesMax - kKeptBytesMax / 64;

constexpr std::chrono::milliseconds kConsoleWait{200};

// Each rotation looks at every copy.
constexpr unsigned int kRollIndexMax = 9999;

/// Writes a text in one go, so that lines of different threads stay whole. A console that takes
/// nothing for a while is stuck: it gets the lines that it has room for, and no caller waits for
/// it.
void WriteToConsole(const std::string& text) {
  static std::atomic<bool> is_stuck{false};
  for (std::size_t done = 0; done < text.size();) {
    const Deadline deadline(is_stuck ? std::chrono::milliseconds(0) : kConsoleWait);
    is_stuck = WaitForDescriptor(STDOUT_FILENO, POLLOUT, deadline) == 0;
    // A pipe that is ready has room for this many bytes at least (pipe(7)).
    const std::size_t count = std::min<std::size_t>(text.size() - done, PIPE_BUF);
    if (is_stuck || ::write(STDOUT_FILENO, text.data() + done, count) < 0) {
      return;
    }
    done += count;
  }
}

bool WriteAll(int descriptor, const std::string& text) {
  std::size_t done = 0;
  while (done < text.size()) {
    const ssize_t written = ::write(descriptor, text.data() + done, text.size() - done);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return false;
    }
    done += static_cast<std::size_t>(written);
  }
  return true;
}

/// None also for what is no file: a pipe that somebody put there would hold the writer up.
Descriptor OpenForAppend(const std::string& path, int more_flags = 0) {
  constexpr int kFlags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NONBLOCK | O_NOCTTY;
  Descriptor file(::open(path.c_str(), kFlags | more_flags, 0666));
  struct stat status {};
  if (file.IsOpen() && (::fstat(file.Get(), &status) != 0 || !S_ISREG(status.st_mode))) {
    file.Reset();
  }
  return file;
}

/// False when the card does not have the data. A file system that cannot synchronise has nothing to
/// report.
bool IsOnCard(const Descriptor& descriptor) {
  return descriptor.IsOpen() && (::fsync(descriptor.Get()) == 0 || errno == EINVAL);
}

}  // namespace

LogFileOutput::LogFileOutput()
    : time_stamp_format_(kLogTimeStampFormat),
      log_level_(kLogFileInitializeLogLevel),
      buffer_size_(kLogFileInitializeBufferSize),
      roll_index_(kLogFileInitializeRollIndex),
      file_size_(kLogFileInitializeFileSize) {}

LogFileOutput::~LogFileOutput() {
  Finish();
}

void LogFileOutput::SetFileSize(unsigned int file_size) {
  if (file_size != 0) {
    file_size_ = file_size;
  }
}

void LogFileOutput::SetRollingIndex(unsigned int roll_index) {
  if (roll_index != 0) {
    roll_index_ = std::min(roll_index, kRollIndexMax);
  }
}

void LogFileOutput::SetLogLevel(int log_level) {
  if (log_level >= kLogOutputLevelVerboseValue && log_level <= kLogOutputLevelFatalValue) {
    log_level_ = log_level;
  }
}

void LogFileOutput::ChangeLogLevel(int log_level) {
  log_level_ = log_level;
}

void LogFileOutput::SetIsEnableBufferdIO(bool bufferd_io) {
  is_enable_bufferd_io_ = bufferd_io;
}

void LogFileOutput::SetBufferSize(unsigned int buffer_size) {
  if (buffer_size != 0) {
    buffer_size_ = buffer_size;
  }
}

void LogFileOutput::SetTimeStampFormat(std::string format) {
  if (!format.empty()) {
    time_stamp_format_ = std::move(format);
  }
}

void LogFileOutput::Setup(std::string file_path) {
  if (file_path.empty()) {
    WriteToConsole("file_path error not set\n");
  }
  file_dir_ = FileUtil::GetDirectory(file_path);
  file_name_ = FileUtil::GetFileName(file_path);
  file_path_ = std::move(file_path);
  if (!FileUtil::IsFileExists(file_dir_) && !FileUtil::CreateDirectory(file_dir_, true)) {
    CreateIoErrorFile();
  }
  {
    const Lock lock(mutex_);
    for (int i = 0; i < kLogBufferCountMax; ++i) {
      buffer_[i].clear();
      line_numbers_[i].clear();
    }
    buffer_log_ = &buffer_[buffer_index_];
  }
  if (!log_file_output_timer_) {
    log_file_output_timer_ =
        std::make_unique<Poco::Timer>(kLogFileWriteCycleTimeMs, kLogFileWriteCycleTimeMs);
    log_file_output_timer_->start(
        Poco::TimerCallback<LogFileOutput>(*this, &LogFileOutput::Execute));
  }
}

void LogFileOutput::LogOutput(int level, const std::string& level_string, const std::string& tag,
                              const std::string& message) try {
  if (level < log_level_) {
    return;
  }
  try {
    std::string line = FormatLine(level_string, tag, message);
    WriteToConsole(file_name_ + " " + line);
    if (IsLogEnable()) {
      Queue(std::move(line));
    }
  } catch (const Poco::Exception& failure) {
    WriteToConsole("LogOutput error " + failure.displayText() + "\n");
    Queue(failure.displayText());
  }
} catch (const std::exception&) {
  // No memory for one more line. The caller's work is worth more than the line.
}

std::string LogFileOutput::FormatLine(const std::string& level_string, const std::string& tag,
                                      const std::string& message) const {
  std::string line = UtcTimeText();
  line.reserve(line.size() + level_string.size() + tag.size() + message.size() + 8);
  if (!level_string.empty()) {
    line.append("[").append(level_string).append("] ");
  }
  if (!tag.empty()) {
    line.append(tag).append(" ");
  }
  return line.append(message).append("\n");
}

std::string LogFileOutput::UtcTimeText() const {
  const std::string text = TimeStamp::CreateWithCurrentDate()->StringFromFormat(time_stamp_format_);
  return text.empty() ? text : "[" + text + " UTC] ";
}

void LogFileOutput::Queue(std::string line) {
  const Lock lock(mutex_);
  if (buffer_log_ == nullptr) {
    return;
  }
  kept_bytes_ += line.size();
  line_numbers_[buffer_index_].push_back(next_line_number_++);
  buffer_log_->push_back(std::move(line));
  if (is_card_gone_ && kept_bytes_ > kKeptBytesMax) {
    DropOldestLines();
  }
}

// The caller holds mutex_.
void LogFileOutput::DropOldestLines() {
  std::size_t dropped[kLogBufferCountMax] = {};
  const auto oldest = [&](int index) {
    const bool is_available = index == buffer_index_ || !is_writing_;
    return is_available && dropped[index] < buffer_[index].size()
               ? line_numbers_[index][dropped[index]]
               : next_line_number_;
  };
  while (kept_bytes_ > kKeptBytesAfterDrop) {
    const int index = oldest(0) < oldest(1) ? 0 : 1;
    if (oldest(index) == next_line_number_) {
      break;
    }
    kept_bytes_ -= buffer_[index][dropped[index]++].size();
  }
  for (int i = 0; i < kLogBufferCountMax; ++i) {
    const auto count = static_cast<std::ptrdiff_t>(dropped[i]);
    if (count == 0) {
      continue;  // perhaps the writer's
    }
    buffer_[i].erase(buffer_[i].begin(), buffer_[i].begin() + count);
    line_numbers_[i].erase(line_numbers_[i].begin(), line_numbers_[i].begin() + count);
    dropped_lines_ += dropped[i];
  }
  log_size_ = 0;
  log_line_ = 0;
}

void LogFileOutput::Flush() {
  is_flush_request_ = true;
}

void LogFileOutput::Finish() {
  if (!log_file_output_timer_) {
    return;
  }
  log_file_output_timer_->stop();
  // One tick for the current buffer, one for lines that the other still keeps from a time without
  // a card.
  for (int i = 0; i < kLogBufferCountMax; ++i) {
    Flush();
    Execute(*log_file_output_timer_);
  }
  log_file_output_timer_.reset();
  const Lock lock(mutex_);
  buffer_log_ = nullptr;
}

void LogFileOutput::Execute(Poco::Timer& /*timer*/) {
  try {
    Tick();
  } catch (const std::exception& failure) {
    WriteToConsole(std::string("log_file write error ") + failure.what() + "\n");
  }
}

void LogFileOutput::Tick() {
  if (!IsLogEnable() && !is_flush_request_) {
    return;
  }
  const int taken = TakeBuffer();
  if (taken < 0) {
    return;
  }
  bool is_card_gone = is_card_gone_;  // as before, when there is nothing to try it with
  if (!buffer_[taken].empty()) {
    is_card_gone = !PrepareFile();
    if (!is_card_gone) {
      WriteBuffer(taken);
    }
  }
  if (is_flush_tick_) {
    Synchronise();
  }
  const Lock lock(mutex_);
  is_writing_ = false;
  is_card_gone_ = is_card_gone;
  kept_bytes_ = 0;
  for (const Lines& lines : buffer_) {
    kept_bytes_ =
        std::accumulate(lines.begin(), lines.end(), kept_bytes_,
                        [](std::size_t sum, const std::string& line) { return sum + line.size(); });
  }
  if (is_card_gone_ && kept_bytes_ > kKeptBytesMax) {
    DropOldestLines();
  }
}

/// Swaps the buffers when the current one is to be written. Returns the index of the buffer that is
/// the writer's now, -1 when there is nothing to do.
int LogFileOutput::TakeBuffer() {
  const Lock lock(mutex_);
  if (!IsBufferOutput()) {
    return -1;
  }
  const int taken = buffer_index_;
  is_writing_ = true;
  buffer_index_ = (buffer_index_ + 1) % kLogBufferCountMax;
  buffer_log_ = &buffer_[buffer_index_];
  return taken;
}

bool LogFileOutput::IsBufferOutput() {
  is_flush_tick_ = is_flush_request_.exchange(false);
  bool is_output = is_flush_tick_ || !is_enable_bufferd_io_;
  if (!is_output) {
    const int count = static_cast<int>(buffer_log_->size());
    for (; log_line_ < count; ++log_line_) {
      log_size_ += static_cast<int>((*buffer_log_)[static_cast<std::size_t>(log_line_)].size());
    }
    is_output = static_cast<unsigned int>(log_size_) >= buffer_size_;
  }
  if (is_output) {
    log_size_ = 0;
    log_line_ = 0;
  }
  return is_output;
}

bool LogFileOutput::PrepareFile() {
  const bool is_ready =
      (FileUtil::IsFileExists(file_dir_) || FileUtil::CreateDirectory(file_dir_, true)) &&
      (FileUtil::CanWrite(file_dir_) || FileUtil::SetWriteable(file_dir_, true)) &&
      (FileUtil::IsFileExists(file_path_) || FileUtil::CreateFile(file_path_));
  if (!is_ready) {
    CreateIoErrorFile();
  }
  return is_ready;
}

void LogFileOutput::WriteBuffer(int index) {
  std::string pending = ReportDroppedLines();
  // Only this thread changes the file, so its size is read again only after a write.
  unsigned int file_size = FileUtil::GetSize(file_path_);
  for (const std::string& line : buffer_[index]) {
    const auto size = static_cast<unsigned int>(file_size + pending.size() + line.size());
    if (file_size_ + refused_size_ < size) {
      FileOutput(pending);
      pending.clear();
      Synchronise();  // a later flush reaches only the new file
      LogRotate(file_name_);
      file_size = FileUtil::GetSize(file_path_);
    }
    pending += line;
  }
  FileOutput(pending);
  const Lock lock(io_file_error_mutex_);
  buffer_[index].clear();
  line_numbers_[index].clear();
}

std::string LogFileOutput::ReportDroppedLines() {
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = std::exchange(dropped_lines_, 0);
  }
  if (dropped == 0 || log_level_ > kLogOutputLevelWarnValue) {
    return {};
  }
  std::string line =
      FormatLine(kLogOutputLevelWarnString, kLogTag,
                 "Log lines lost while the card was gone [" + std::to_string(dropped) + "]");
  WriteToConsole(file_name_ + " " + line);
  return line;
}

void LogFileOutput::LogRotate(std::string file_name) {
  for (unsigned int index = roll_index_; index >= 1; --index) {
    const std::string old_name =
        index == 1 ? file_name : Poco::format("%s.%d", file_name, static_cast<int>(index - 1));
    if (!FileUtil::IsFileExists(file_dir_ + old_name)) {
      continue;
    }
    const std::string new_name = Poco::format("%s.%d", file_name, static_cast<int>(index));
    if (!FileUtil::RenameFile(file_dir_ + old_name, file_dir_ + new_name)) {
      // To go on would replace text that has no other copy. The file grows by another file's length
      // before the next attempt, so that the lines about the refusal do not ask for one.
      refused_size_ = FileUtil::GetSize(file_path_);
      return;
    }
    if (index == 1 && !FileUtil::CreateFile(file_path_)) {
      CreateIoErrorFile();
    }
  }
  refused_size_ = 0;
}

void LogFileOutput::FileOutput(std::string output_message) {
  // An empty append would end a failure episode without proof that the card takes anything.
  if (output_message.empty()) {
    return;
  }
  const Descriptor file = OpenForAppend(file_path_);
  if (!file.IsOpen()) {
    CreateIoErrorFile();
    return;
  }
  if (!WriteAll(file.Get(), output_message)) {
    ReportWriteError();
    return;
  }
  is_synchronised_ = false;
  is_file_write_error_ = false;
}

/// Brings what was written to the card, with its directory: a file created or renamed has to be
/// found again.
void LogFileOutput::Synchronise() {
  if (is_synchronised_) {
    return;
  }
  const Descriptor file(::open(file_path_.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK));
  const Descriptor directory(::open(file_dir_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  is_synchronised_ = IsOnCard(file) && IsOnCard(directory);
  if (!is_synchronised_) {
    ReportWriteError();
  }
}

void LogFileOutput::ReportWriteError() {
  WriteToConsole("log_file error " + file_path_ + "\n");
  CreateIoErrorFile();
}

void LogFileOutput::CreateIoErrorFile() {
  const Lock lock(io_file_error_mutex_);
  if (is_file_write_error_) {
    return;
  }
  // No links: everybody may put one into that folder.
  const Descriptor file = OpenForAppend(kLoggerIoFileErrorFile, O_NOFOLLOW);
  if (!file.IsOpen()) {
    return;
  }
  if (WriteAll(file.Get(), UtcTimeText() + file_path_ + "\n")) {
    is_file_write_error_ = true;
  } else {
    WriteToConsole("log_file error " + kLoggerIoFileErrorFile + "\n");
  }
}

bool LogFileOutput::IsLogEnable() {
  return FileUtil::IsLogWriteEnable();
}

}  // namespace tmsc
