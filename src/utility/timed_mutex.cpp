#include "utility/timed_mutex.h"

namespace tmsc {

void TimedMutex::lock() {
  std::unique_lock<std::mutex> lock(mutex_);
  unlocked_.wait(lock, [this] { return !is_locked_; });
  is_locked_ = true;
}

bool TimedMutex::try_lock_until(Deadline::Clock::time_point moment) {
  std::unique_lock<std::mutex> lock(mutex_);
  if (!unlocked_.wait_until(lock, moment, [this] { return !is_locked_; })) {
    return false;
  }
  is_locked_ = true;
  return true;
}

void TimedMutex::unlock() {
  const std::lock_guard<std::mutex> lock(mutex_);
  is_locked_ = false;
  unlocked_.notify_one();
}

}  // namespace tmsc
