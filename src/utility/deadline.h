#ifndef TAMSEL_UTILITY_DEADLINE_H_
#define TAMSEL_UTILITY_DEADLINE_H_

#include <chrono>
#include <optional>

namespace tmsc {

/// A moment on the monotonic clock that bounds a wait.
class Deadline {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Deadline(std::chrono::milliseconds from_now) : moment_(Clock::now() + from_now) {}

  /// Time left, rounded up to whole milliseconds so that a wait of that length reaches the moment;
  /// 0 when it has passed.
  int RemainingMs() const;

  bool HasPassed() const { return Clock::now() >= moment_; }

  Clock::time_point Moment() const { return moment_; }

 private:
  Clock::time_point moment_;
};

/// Waits with poll(2) until `descriptor` shows one of `events` (POLLIN, POLLOUT), an error or a
/// hang-up, or until the deadline; no deadline means no limit. A signal does not end the wait.
/// Returns 1 when the descriptor is ready, 0 when the time ran out, -1 with errno set when the wait
/// itself failed.
int WaitForDescriptor(int descriptor, short events, const std::optional<Deadline>& deadline);

}  // namespace tmsc

#endif  // TAMSEL_UTILITY_DEADLINE_H_
