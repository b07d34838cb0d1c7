#ifndef TAMSEL_LOG_LOG_FILE_OUTPUT_H_
#define TAMSEL_LOG_LOG_FILE_OUTPUT_H_

#include <Poco/Mutex.h>
#include <Poco/Timer.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "log/card_file.h"
#include "utility/constant_string.h"

namespace tmsc {

constexpr int kLogOutputLevelVerboseValue = 0;
constexpr int kLogOutputLevelDebugValue = 1;
constexpr int kLogOutputLevelInfoValue = 2;
constexpr int kLogOutputLevelWarnValue = 3;
constexpr int kLogOutputLevelErrorValue = 4;
constexpr int kLogOutputLevelFatalValue = 5;

inline const std::string& kLogOutputLevelVerboseString = ConstantString("V");
inline const std::string& kLogOutputLevelDebugString = ConstantString("D");
inline const std::string& kLogOutputLevelInfoString = ConstantString("I");
inline const std::string& kLogOutputLevelWarnString = ConstantString("W");
inline const std::string& kLogOutputLevelErrorString = ConstantString("E");
inline const std::string& kLogOutputLevelFatalString = ConstantString("F");

/// Time text of a line, in the notation of Poco::DateTimeFormatter.
inline const std::string& kLogTimeStampFormat = ConstantString("%Y-%m-%d %H:%M:%S");
inline const std::string& kLogTimeStampFormatMs = ConstantString("%Y-%m-%d %H:%M:%S.%i");

/// Number of line buffers: callers fill one while the writer empties the other.
constexpr int kLogBufferCountMax = 2;

/// Serialises the error file and the emptying of a written buffer; never held with an output's own
/// mutex.
extern Poco::Mutex& io_file_error_mutex_;

/// What a log line is queued as. Numbers grow in the order in which lines came.
struct LogLine {
  std::uint64_t number;
  std::string text;  // with its "\n"
};

/// Takes log lines from any thread and writes them to a file from a timer thread, every 500 ms: in
/// buffered mode once enough text is queued or a flush was asked for, else at every tick. The file
/// is rotated by size into numbered copies. Lines that cannot be written because the card is gone
/// are kept, 4 MiB at most; such a time leaves one line at its beginning and one at its end. Each
/// episode of failure leaves one line in the error file.
///
/// The setters are for the time before Setup, by one thread. LogOutput and Flush are for any thread
/// at any time: a line that comes before Setup is echoed and queued, too.
class LogFileOutput {
 public:
  LogFileOutput();
  /// Finish().
  virtual ~LogFileOutput();
  LogFileOutput(const LogFileOutput&) = delete;
  LogFileOutput& operator=(const LogFileOutput&) = delete;

  /// Largest size of the log file in bytes; 0 is ignored.
  void SetFileSize(unsigned int file_size);
  /// Number of rotated copies, at most 9999; 0 is ignored.
  void SetRollingIndex(unsigned int roll_index);
  /// Lowest level that is logged; outside 0 to 5 is ignored.
  void SetLogLevel(int log_level);
  /// Like SetLogLevel, without the range check.
  void ChangeLogLevel(int log_level);
  void SetIsEnableBufferdIO(bool bufferd_io);
  bool GetEnableBufferdIo() const { return is_enable_bufferd_io_; }
  /// Bytes of queued text that trigger a write in buffered mode; 0 is ignored.
  void SetBufferSize(unsigned int buffer_size);
  /// An empty format is ignored.
  void SetTimeStampFormat(std::string format);
  /// Where failures are recorded, in place of /tmp/logger_io_file_error; for tests.
  void SetIoErrorFile(const std::string& path);

  /// Sets the file's path and starts the writer's timer.
  void Setup(std::string file_path);

  /// Echoes one line on standard output and queues it, when `level` is high enough. Never throws,
  /// never waits, never touches the file system.
  void LogOutput(int level, const std::string& level_string, const std::string& tag,
                 const std::string& message);

  /// Makes the next tick write what is queued and bring it to the card (fsync).
  void Flush();

  /// Stops the timer, waiting for a tick in progress, writes what is queued, and gives the console
  /// 500 ms to take the echoes. Further calls do nothing.
  void Finish();

  /// One tick of the writer; the timer's callback. Before Setup it does nothing.
  void Execute(Poco::Timer& timer);
  /// Whether the current buffer is to be written now; the caller holds mutex_.
  bool IsBufferOutput();
  /// Shifts the numbered copies by one and starts a new file. A copy that cannot be renamed is
  /// left out; a live file that cannot be renamed goes on to twice its size, then it is emptied.
  void LogRotate(std::string file_name);
  /// Appends a text to the log file.
  void FileOutput(std::string output_message);
  /// Records the current failure in the error file, once an episode.
  void CreateIoErrorFile();
  /// The process-wide log-write switch.
  bool IsLogEnable();

 private:
  using Lines = std::vector<LogLine>;
  struct Pending;

  std::string FormatLine(const std::string& level_string, const std::string& tag,
                         const std::string& message) const;
  /// The line, echoed already; empty when the level is not logged.
  std::string EchoOwnLine(int level, const std::string& level_string,
                          const std::string& message) const;
  std::string UtcTimeText() const;
  void Queue(std::string line);
  void DropOldestLines();
  void Tick();
  int TakeBuffer();
  bool HasFile();
  bool PrepareFile();
  void BeginWithoutCard();
  std::string EndWithoutCard();
  std::string ReportDroppedLines();
  void WriteBuffer(int index);
  void Gather(Pending& pending, const std::string& line);
  void Synchronise();
  void ReportWriteError();

  Poco::Mutex mutex_;
  // Guarded by mutex_, except that a buffer taken by the writer is the writer's alone until it is
  // written or given back.
  Lines* buffer_log_ = nullptr;
  int buffer_index_ = 0;
  Lines buffer_[kLogBufferCountMax];
  std::size_t buffer_bytes_[kLogBufferCountMax] = {};  // of text
  std::uint64_t next_line_number_ = 0;
  bool is_finished_ = false;   // no more lines are queued
  bool is_writing_ = false;    // the writer has the buffer that is not current
  bool is_card_gone_ = false;  // the last attempt to prepare the file failed
  std::size_t dropped_lines_ = 0;
  int log_size_ = 0;
  int log_line_ = 0;

  // Set before the timer starts, then constant (the level: any thread). The strings are guarded by
  // mutex_ until is_set_up_ says that they are constant.
  std::atomic<bool> is_set_up_{false};
  std::string time_stamp_format_;
  std::string file_dir_;
  std::string file_path_;
  std::string file_name_;
  std::atomic<int> log_level_;
  std::atomic<bool> is_enable_bufferd_io_{true};
  unsigned int buffer_size_;
  unsigned int roll_index_;
  unsigned int file_size_;

  std::unique_ptr<Poco::Timer> log_file_output_timer_;
  std::atomic<bool> is_flush_request_{false};
  std::atomic<bool> is_file_write_error_{false};

  // The writer's own.
  CardFile card_file_;
  CardFile io_error_file_;
  std::string refusal_;               // what the file helpers said last, in an attempt
  std::string without_card_line_;     // says that the card is gone, until it can be written
  bool is_flush_tick_ = false;        // this tick serves a flush
  bool is_synchronised_ = true;       // nothing written or renamed since the last fsync
  bool are_names_on_card_ = true;     // no file renamed since the last syncfs
  bool is_rotation_refused_ = false;  // the last rotation could not rename everything
  unsigned int refused_size_ = 0;     // of the file when it could not be renamed or emptied
};

}  // namespace tmsc

#endif  // TAMSEL_LOG_LOG_FILE_OUTPUT_H_
