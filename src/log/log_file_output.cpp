#include "log/log_file_output.h"

#include <Poco/Exception.h>
#include <Poco/Format.h>
#include <Poco/ScopedLock.h>
#include <limits.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <exception>
#include <initializer_list>
#include <optional>
#include <string_view>
#include <utility>

#include "common/time_stamp.h"
#include "log/console_output.h"
#include "log/log_condition.h"
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

// At the stop, for a console that takes text slowly or not at all.
constexpr std::chrono::milliseconds kConsoleEndWait{500};

// Lines; a burst leaves no more room for them behind.
constexpr std::size_t kKeptCapacity = 16 * 1024;

// Each rotation looks at every copy.
constexpr unsigned int kRollIndexMax = 9999;

// Set on the thread that tries something on the card again and again: what the file helpers log
// about a refusal is then the reason in a line of the writer's own, once an episode.
thread_local bool is_trying_ = false;

class Attempt {
 public:
  explicit Attempt(bool is_quiet = true) { is_trying_ = is_quiet; }
  ~Attempt() { is_trying_ = false; }
  Attempt(const Attempt&) = delete;
  Attempt& operator=(const Attempt&) = delete;
};

void WriteToConsole(std::initializer_list<std::string_view> parts) {
  ConsoleOutput::Get().Write(parts);
}

}  // namespace

/// Text that goes to the file with the next append, and the size of the file before that.
struct LogFileOutput::Pending {
  std::string text;
  unsigned int file_size;
};

LogFileOutput::LogFileOutput()
    : time_stamp_format_(kLogTimeStampFormat),
      log_level_(kLogFileInitializeLogLevel),
      buffer_size_(kLogFileInitializeBufferSize),
      roll_index_(kLogFileInitializeRollIndex),
      file_size_(kLogFileInitializeFileSize) {
  SetIoErrorFile(kLoggerIoFileErrorFile);
}

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
    const Lock lock(mutex_);
    time_stamp_format_ = std::move(format);
  }
}

void LogFileOutput::SetIoErrorFile(const std::string& path) {
  io_error_file_ = CardFile(path, CardFile::Folder::kShared);
}

void LogFileOutput::Setup(std::string file_path) {
  if (file_path.empty()) {
    WriteToConsole({"file_path error not set\n"});
  }
  {
    const Lock lock(mutex_);
    file_dir_ = FileUtil::GetDirectory(file_path);
    file_name_ = FileUtil::GetFileName(file_path);
    file_path_ = std::move(file_path);
    card_file_ = CardFile(file_path_);
  }
  bool has_directory = false;
  {
    const Attempt attempt;
    has_directory = FileUtil::IsFileExists(file_dir_) || FileUtil::CreateDirectory(file_dir_, true);
  }
  if (!has_directory) {
    CreateIoErrorFile();
    BeginWithoutCard();
  }
  {
    const Lock lock(mutex_);
    // Before the first set-up they hold only lines that came while the log was being configured.
    for (int i = 0; i < kLogBufferCountMax && buffer_log_ != nullptr; ++i) {
      buffer_[i].clear();
      buffer_bytes_[i] = 0;
    }
    buffer_log_ = &buffer_[buffer_index_];
    is_finished_ = false;
  }
  is_set_up_ = true;
  if (!log_file_output_timer_) {
    log_file_output_timer_ =
        std::make_unique<Poco::Timer>(kLogFileWriteCycleTimeMs, kLogFileWriteCycleTimeMs);
    log_file_output_timer_->start(
        Poco::TimerCallback<LogFileOutput>(*this, &LogFileOutput::Execute));
  }
}

void LogFileOutput::LogOutput(int level, const std::string& level_string, const std::string& tag,
                              const std::string& message) try {
  if (is_trying_) {
    refusal_ = message;
    return;
  }
  if (level < log_level_) {
    return;
  }
  std::optional<Lock> until_set_up;
  if (!is_set_up_) {
    until_set_up.emplace(mutex_);
  }
  try {
    std::string line = FormatLine(level_string, tag, message);
    WriteToConsole({file_name_, " ", line});
    if (IsLogEnable()) {
      Queue(std::move(line));
    }
  } catch (const Poco::Exception& failure) {
    WriteToConsole({"LogOutput error ", failure.displayText(), "\n"});
    Queue(failure.displayText());
  }
} catch (const std::exception&) {
  // No memory for one more line. The caller's work is worth more than the line.
}

std::string LogFileOutput::FormatLine(const std::string& level_string, const std::string& tag,
                                      const std::string& message) const {
  const std::string time = UtcTimeText();
  std::string line;
  line.reserve(time.size() + level_string.size() + tag.size() + message.size() + 5);
  line.append(time);
  if (!level_string.empty()) {
    line.append("[").append(level_string).append("] ");
  }
  if (!tag.empty()) {
    line.append(tag).append(" ");
  }
  return line.append(message).append("\n");
}

std::string LogFileOutput::EchoOwnLine(int level, const std::string& level_string,
                                       const std::string& message) const {
  if (level < log_level_) {
    return {};
  }
  std::string line = FormatLine(level_string, kLogTag, message);
  WriteToConsole({file_name_, " ", line});
  return line;
}

std::string LogFileOutput::UtcTimeText() const {
  const std::string text = TimeStamp::CreateWithCurrentDate()->StringFromFormat(time_stamp_format_);
  return text.empty() ? text : "[" + text + " UTC] ";
}

void LogFileOutput::Queue(std::string line) {
  const Lock lock(mutex_);
  if (is_finished_) {
    return;
  }
  buffer_bytes_[buffer_index_] += line.size();
  buffer_[buffer_index_].push_back({next_line_number_++, std::move(line)});
  if (is_card_gone_ || is_writing_) {  // a write may hang as long as a card is away
    DropOldestLines();
  }
}

// The caller holds mutex_.
void LogFileOutput::DropOldestLines() {
  if (buffer_bytes_[0] + buffer_bytes_[1] <= kKeptBytesMax) {
    return;
  }
  std::size_t dropped[kLogBufferCountMax] = {};
  const auto oldest = [&](int index) {
    const bool is_available = index == buffer_index_ || !is_writing_;
    return is_available && dropped[index] < buffer_[index].size()
               ? buffer_[index][dropped[index]].number
               : next_line_number_;
  };
  while (buffer_bytes_[0] + buffer_bytes_[1] > kKeptBytesAfterDrop) {
    const int index = oldest(0) < oldest(1) ? 0 : 1;
    if (oldest(index) == next_line_number_) {
      break;
    }
    buffer_bytes_[index] -= buffer_[index][dropped[index]++].text.size();
  }
  for (int i = 0; i < kLogBufferCountMax; ++i) {
    const auto count = static_cast<std::ptrdiff_t>(dropped[i]);
    if (count == 0) {
      continue;  // perhaps the writer's
    }
    buffer_[i].erase(buffer_[i].begin(), buffer_[i].begin() + count);
    dropped_lines_ += dropped[i];
    log_condition.lines_lost += static_cast<std::uint32_t>(dropped[i]);
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
  {
    const Lock lock(mutex_);
    is_finished_ = true;
    for (int i = 0; i < kLogBufferCountMax; ++i) {
      buffer_[i].clear();
      buffer_bytes_[i] = 0;
    }
  }
  ConsoleOutput::Get().Drain(kConsoleEndWait);
}

void LogFileOutput::Execute(Poco::Timer& /*timer*/) {
  try {
    Tick();
  } catch (const std::exception& failure) {
    WriteToConsole({"log_file write error ", failure.what(), "\n"});
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
  if (!buffer_[taken].empty() && PrepareFile()) {
    WriteBuffer(taken);
  }
  if (is_flush_tick_) {
    Synchronise();
  }
  const Lock lock(mutex_);
  is_writing_ = false;
  if (buffer_[taken].empty()) {
    buffer_bytes_[taken] = 0;
  }
  if (is_card_gone_) {
    DropOldestLines();
  }
}

/// Swaps the buffers when the current one is to be written. Returns the index of the buffer that is
/// the writer's now, -1 when there is nothing to do.
int LogFileOutput::TakeBuffer() {
  const Lock lock(mutex_);
  if (buffer_log_ == nullptr || !IsBufferOutput()) {
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
      log_size_ +=
          static_cast<int>((*buffer_log_)[static_cast<std::size_t>(log_line_)].text.size());
    }
    is_output = static_cast<unsigned int>(log_size_) >= buffer_size_;
  }
  if (is_output) {
    log_size_ = 0;
    log_line_ = 0;
  }
  return is_output;
}

bool LogFileOutput::HasFile() {
  struct stat status {};
  if (::lstat(file_path_.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
    refusal_ = "it is a link";
    return false;
  }
  if (FileUtil::IsFileExists(file_path_)) {
    return true;
  }
  // To create a file removes what has its name: only if nothing has.
  return FileUtil::IsMissing(file_path_) ? FileUtil::CreateFile(file_path_)
                                         : FileUtil::CanWrite(file_path_);
}

bool LogFileOutput::PrepareFile() {
  bool is_ready = false;
  {
    const Attempt attempt;
    refusal_.clear();
    is_ready = (FileUtil::IsFileExists(file_dir_) || FileUtil::CreateDirectory(file_dir_, true)) &&
               (FileUtil::CanWrite(file_dir_) || FileUtil::SetWriteable(file_dir_, true)) &&
               HasFile();
  }
  if (!is_ready) {
    CreateIoErrorFile();
    BeginWithoutCard();
  }
  return is_ready;
}

void LogFileOutput::BeginWithoutCard() {
  {
    const Lock lock(mutex_);
    if (is_card_gone_) {
      return;
    }
    is_card_gone_ = true;
    log_condition.is_card_gone = true;
  }
  // Kept apart from the other lines: it is not to be among those that are dropped.
  without_card_line_ = EchoOwnLine(
      kLogOutputLevelErrorValue, kLogOutputLevelErrorString,
      "Card is gone, log lines are kept [" + file_path_.substr(0, PATH_MAX) + "] " + refusal_);
}

std::string LogFileOutput::EndWithoutCard() {
  {
    const Lock lock(mutex_);
    if (!is_card_gone_) {
      return {};
    }
    is_card_gone_ = false;
    log_condition.is_card_gone = false;
  }
  return EchoOwnLine(kLogOutputLevelWarnValue, kLogOutputLevelWarnString,
                     "Card is back [" + file_path_ + "]");
}

std::string LogFileOutput::ReportDroppedLines() {
  std::size_t dropped = 0;
  {
    const Lock lock(mutex_);
    dropped = std::exchange(dropped_lines_, 0);
  }
  return dropped == 0 ? std::string()
                      : EchoOwnLine(kLogOutputLevelWarnValue, kLogOutputLevelWarnString,
                                    "Log lines lost while the card was gone [" +
                                        std::to_string(dropped) + "]");
}

void LogFileOutput::WriteBuffer(int index) {
  // Only this thread changes the file, so its size is read again only after a write.
  Pending pending{{}, FileUtil::GetSize(file_path_)};
  Gather(pending, std::exchange(without_card_line_, {}));
  const std::string end_line = EndWithoutCard();
  Gather(pending, ReportDroppedLines());
  for (const LogLine& line : buffer_[index]) {
    Gather(pending, line.text);
  }
  Gather(pending, end_line);
  FileOutput(pending.text);
  const Lock lock(io_file_error_mutex_);
  buffer_[index].clear();
  if (buffer_[index].capacity() > kKeptCapacity) {
    buffer_[index].shrink_to_fit();
  }
}

void LogFileOutput::Gather(Pending& pending, const std::string& line) {
  const std::uint64_t size = std::uint64_t{pending.file_size} + pending.text.size() + line.size();
  if (!line.empty() && std::uint64_t{file_size_} + refused_size_ < size) {
    // Whatever comes of the write: on a full card it is the rotation that makes room.
    FileOutput(std::exchange(pending.text, {}));
    Synchronise();  // its text first, else a cut may leave a copy with the length of text it lacks
    LogRotate(file_name_);
    Synchronise();
    pending.file_size = FileUtil::GetSize(file_path_);
  }
  pending.text += line;
}

void LogFileOutput::LogRotate(std::string file_name) {
  // What a rotation cannot rename is told once, not again and again: each line makes the file grow
  // towards the next rotation.
  const Attempt attempt(is_rotation_refused_);
  const bool was_kept = std::exchange(refused_size_, 0) > 0;
  is_rotation_refused_ = false;
  is_synchronised_ = false;
  are_names_on_card_ = false;
  for (unsigned int index = roll_index_; index >= 1; --index) {
    const std::string old_name =
        index == 1 ? file_name : Poco::format("%s.%d", file_name, static_cast<int>(index - 1));
    if (FileUtil::IsMissing(file_dir_ + old_name)) {
      continue;
    }
    const std::string new_name = Poco::format("%s.%d", file_name, static_cast<int>(index));
    const bool is_renamed = FileUtil::RenameFile(file_dir_ + old_name, file_dir_ + new_name);
    is_rotation_refused_ = is_rotation_refused_ || !is_renamed;
    if (index > 1) {
      continue;
    }
    // A file that stays grows by another file's length first: its text has no other copy.
    if ((is_renamed || was_kept) && !FileUtil::CreateFile(file_path_)) {
      CreateIoErrorFile();
    }
    if (!is_renamed) {
      refused_size_ = FileUtil::GetSize(file_path_);  // 0 when it was emptied
    }
  }
}

void LogFileOutput::FileOutput(std::string output_message) {
  // An empty append would end a failure episode without proof that the card takes anything.
  if (output_message.empty()) {
    return;
  }
  const CardFile::Outcome outcome = card_file_.Append(output_message);
  const bool is_lost = outcome != CardFile::Outcome::kWritten;
  log_condition.is_card_gone = is_lost;
  if (is_lost) {
    log_condition.lines_lost +=
        static_cast<std::uint32_t>(std::count(output_message.begin(), output_message.end(), '\n'));
  }
  if (outcome == CardFile::Outcome::kNotOpened) {
    CreateIoErrorFile();
    return;
  }
  is_synchronised_ = false;
  if (is_lost) {
    ReportWriteError();
  } else {
    is_file_write_error_ = false;
  }
}

/// Brings what was written to the card; all of its file system when names changed.
void LogFileOutput::Synchronise() {
  if (is_synchronised_) {
    return;
  }
  is_synchronised_ = are_names_on_card_ ? card_file_.Synchronise() : card_file_.SynchroniseCard();
  are_names_on_card_ = are_names_on_card_ || is_synchronised_;
  if (!is_synchronised_) {
    ReportWriteError();
  }
}

void LogFileOutput::ReportWriteError() {
  WriteToConsole({"log_file error ", file_path_, "\n"});
  CreateIoErrorFile();
}

void LogFileOutput::CreateIoErrorFile() {
  const Lock lock(io_file_error_mutex_);
  if (is_file_write_error_) {
    return;
  }
  const CardFile::Outcome outcome =
      io_error_file_.Append(UtcTimeText() + file_path_.substr(0, PATH_MAX) + "\n");
  is_file_write_error_ = outcome == CardFile::Outcome::kWritten;
  if (outcome == CardFile::Outcome::kNotWritten) {
    WriteToConsole({"log_file error ", kLoggerIoFileErrorFile, "\n"});
  }
}

bool LogFileOutput::IsLogEnable() {
  return FileUtil::IsLogWriteEnable();
}

}  // namespace tmsc
