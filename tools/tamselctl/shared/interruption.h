#ifndef TAMSELCTL_SHARED_INTERRUPTION_H_
#define TAMSELCTL_SHARED_INTERRUPTION_H_

#include <signal.h>

#include <chrono>
#include <functional>
#include <future>
#include <optional>
#include <thread>
#include <utility>

namespace tmsc::ctl {

/// As long as it lives, the first SIGINT or SIGTERM does not end the process but is noted here; the
/// next one ends it. A signal that the caller has ignored (nohup, a shell's background job) stays
/// ignored. One object at a time, on the main thread.
class Interruption {
 public:
  Interruption();
  ~Interruption();
  Interruption(const Interruption&) = delete;
  Interruption& operator=(const Interruption&) = delete;

  /// The signal that has come; 0: none.
  int Signal() const;
  /// What the process then ends with.
  int ExitCode() const;

  /// Waits `duration`, or until a signal comes. False when one has come.
  bool Sleep(std::chrono::milliseconds duration) const;

  /// Runs `work` on a thread of its own and gives its result, or nothing when a signal comes first;
  /// the work then goes on unwatched and must not use what its caller owns. Meanwhile `tick` is
  /// called some times a second.
  template <typename Work>
  auto Await(Work work, const std::function<void()>& tick) const
      -> std::optional<decltype(work())> {
    std::packaged_task<decltype(work())()> task(std::move(work));
    auto result = task.get_future();
    std::thread(std::move(task)).detach();
    while (result.wait_for(kPace) != std::future_status::ready) {
      if (Signal() != 0) {
        return std::nullopt;
      }
      tick();
    }
    return result.get();
  }

 private:
  static constexpr int kSignals[] = {SIGINT, SIGTERM};
  static constexpr std::chrono::milliseconds kPace{50};

  struct sigaction former_[2] = {};
};

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_INTERRUPTION_H_
