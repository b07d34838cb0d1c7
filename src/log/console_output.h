#ifndef TAMSEL_LOG_CONSOLE_OUTPUT_H_
#define TAMSEL_LOG_CONSOLE_OUTPUT_H_

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <initializer_list>
#include <mutex>
#include <string>
#include <string_view>

namespace tmsc {

/// Standard output, written by a thread of its own, so that nobody else waits for it: a write to a
/// terminal that nobody reads, to a full pipe or to a file on a slow card may block for good, and
/// its flags belong to other programs as well.
///
/// The operations are for any thread.
class ConsoleOutput {
 public:
  /// The process's console. Never destroyed: its thread may hang in a write when the process ends.
  static ConsoleOutput& Get();

  ConsoleOutput(const ConsoleOutput&) = delete;
  ConsoleOutput& operator=(const ConsoleOutput&) = delete;

  /// Queues the parts of one line, which ends in "\n". Texts come out in the order of the calls,
  /// each line within one write(2). Never waits and never throws: when more than 1 MiB is queued,
  /// lines are lost, and one line says how many once the console takes text again.
  void Write(std::initializer_list<std::string_view> parts) noexcept;

  /// Waits until all that is queued is written. False when that did not happen within the limit.
  bool Drain(std::chrono::milliseconds limit);

 private:
  ConsoleOutput() = default;
  void Append(std::initializer_list<std::string_view> parts);
  void Run();
  void TakeQueued(std::unique_lock<std::mutex>& lock);

  std::mutex mutex_;
  // Guarded by mutex_.
  std::string queued_;
  std::size_t lost_lines_ = 0;
  bool has_thread_ = false;
  bool is_idle_ = false;     // the thread waits for the first text
  bool is_writing_ = false;  // it has text that is not queued any more
  int drains_ = 0;           // calls of Drain in progress
  std::condition_variable text_came_;
  std::condition_variable text_written_;

  std::string taken_;  // the thread's own
};

}  // namespace tmsc

#endif  // TAMSEL_LOG_CONSOLE_OUTPUT_H_
