#ifndef TAMSEL_UTILITY_TIMED_MUTEX_H_
#define TAMSEL_UTILITY_TIMED_MUTEX_H_

#include <condition_variable>
#include <mutex>

#include "utility/deadline.h"

namespace tmsc {

/// A mutex that can be waited for until a moment, for std::unique_lock. In place of
/// std::timed_mutex, whose wait on the monotonic clock the thread sanitizer does not know. Any
/// thread may unlock it.
class TimedMutex {
 public:
  TimedMutex() = default;
  TimedMutex(const TimedMutex&) = delete;
  TimedMutex& operator=(const TimedMutex&) = delete;

  void lock();
  /// False when the moment came first.
  bool try_lock_until(Deadline::Clock::time_point moment);
  void unlock();

 private:
  std::mutex mutex_;
  std::condition_variable unlocked_;
  bool is_locked_ = false;  // guarded by mutex_
};

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_TIMED_MUTEX_H_
