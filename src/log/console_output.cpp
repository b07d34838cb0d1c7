#include "log/console_output.h"

#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <exception>
#include <optional>
#include <thread>

#include "utility/deadline.h"

namespace tmsc {

namespace {

constexpr std::size_t kQueuedMax = 1024 * 1024;

// Lines that come close together are written together: after a write the thread lets text gather
// for this long, or until there is so much. Only the first line of a burst has to wake it.
constexpr std::chrono::milliseconds kGatherTime{2};
constexpr std::size_t kGatherSize = 32 * 1024;

// Memory that is kept for the next texts.
constexpr std::size_t kKeptCapacity = 2 * kGatherSize;

/// The first bytes of a text to write at once: whole lines, as many as a pipe takes without another
/// program's text in between (pipe(7)), or one that is longer.
std::size_t WholeLines(std::string_view text) {
  if (text.size() <= PIPE_BUF) {
    return text.size();
  }
  std::size_t end = text.rfind('\n', PIPE_BUF - 1);
  if (end == std::string_view::npos) {
    end = text.find('\n');
  }
  return end == std::string_view::npos ? text.size() : end + 1;
}

/// Writes everything, however long that takes. What a console refuses for good is dropped.
void WriteAll(std::string_view text) {
  while (!text.empty()) {
    std::string_view lines = text.substr(0, WholeLines(text));
    text.remove_prefix(lines.size());
    while (!lines.empty()) {
      const ssize_t written = ::write(STDOUT_FILENO, lines.data(), lines.size());
      if (written >= 0) {
        lines.remove_prefix(static_cast<std::size_t>(written));
      } else if (errno == EAGAIN) {
        // Another program that shares the console has made it non-blocking.
        WaitForDescriptor(STDOUT_FILENO, POLLOUT, std::nullopt);
      } else if (errno != EINTR) {
        return;
      }
    }
  }
}

}  // namespace

ConsoleOutput& ConsoleOutput::Get() {
  static ConsoleOutput& console = *new ConsoleOutput;
  return console;
}

void ConsoleOutput::Write(std::initializer_list<std::string_view> parts) noexcept {
  try {
    Append(parts);
  } catch (const std::exception&) {
    // No memory or no thread for the echo. The line's place in the file does not depend on it.
  }
}

void ConsoleOutput::Append(std::initializer_list<std::string_view> parts) {
  bool is_due = false;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (!has_thread_) {
      std::thread([this] { Run(); }).detach();
      has_thread_ = true;
    }
    // One lost line is followed by others until there is room again, so that the note about them
    // stands where they are missing.
    if (queued_.size() > kQueuedMax || (lost_lines_ > 0 && !queued_.empty())) {
      ++lost_lines_;
      return;
    }
    const std::size_t size_before = queued_.size();
    for (const std::string_view part : parts) {
      queued_.append(part);
    }
    is_due = is_idle_ || (size_before < kGatherSize && queued_.size() >= kGatherSize);
    is_idle_ = false;
  }
  if (is_due) {
    text_came_.notify_one();
  }
}

bool ConsoleOutput::Drain(std::chrono::milliseconds limit) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++drains_;
  text_came_.notify_one();
  const bool is_written =
      text_written_.wait_for(lock, limit, [this] { return queued_.empty() && !is_writing_; });
  --drains_;
  return is_written;
}

void ConsoleOutput::Run() {
  // Signals are the main thread's, SIGPIPE nobody's.
  sigset_t all;
  ::sigfillset(&all);
  ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    is_idle_ = queued_.empty();
    text_came_.wait(lock, [this] { return !queued_.empty(); });
    is_idle_ = false;
    TakeQueued(lock);
    text_came_.wait_for(lock, kGatherTime,
                        [this] { return queued_.size() >= kGatherSize || drains_ > 0; });
  }
}

void ConsoleOutput::TakeQueued(std::unique_lock<std::mutex>& lock) {
  taken_.swap(queued_);
  if (lost_lines_ > 0) {
    try {
      taken_ += "log lines lost on this console [" + std::to_string(lost_lines_) + "]\n";
      lost_lines_ = 0;
    } catch (const std::exception&) {
      // No memory for the note: it comes with the next text.
    }
  }
  is_writing_ = true;
  lock.unlock();
  WriteAll(taken_);
  taken_.clear();
  if (taken_.capacity() > kKeptCapacity) {
    taken_.shrink_to_fit();
  }
  lock.lock();
  is_writing_ = false;
  text_written_.notify_all();
}

}  // namespace tmsc
