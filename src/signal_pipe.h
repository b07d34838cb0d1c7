#ifndef TAMSEL_SIGNAL_PIPE_H_
#define TAMSEL_SIGNAL_PIPE_H_

#include <optional>

#include "utility/deadline.h"
#include "utility/descriptor.h"

namespace tmsc {

/// What a signal asks of the lifecycle manager.
enum class SignalNotification : char { kStop = 'S', kOutage = 'O', kOutageRecovery = 'R' };

/// Carries notifications from signal handlers to the main thread, in order of arrival.
class SignalPipe {
 public:
  /// Throws Poco::SystemException when there is no pipe to be had.
  SignalPipe();

  /// Async-signal-safe; keeps errno. Notifications beyond what the pipe holds, several thousand
  /// unread ones, are dropped.
  void Notify(SignalNotification notification) noexcept;

  /// The next notification; nothing when the deadline passes first. One thread.
  std::optional<SignalNotification> Wait(const Deadline& deadline);

 private:
  Descriptor read_end_;
  Descriptor write_end_;
};

/// SIGUSR1, SIGTERM, SIGPWR and SIGUSR2 for the calling thread and the threads it will create. main
/// blocks them first of all and the main loop unblocks them on its own thread, so that no handler
/// interrupts a worker's system call.
void BlockDaemonSignals();
void UnblockDaemonSignals();

}  // namespace tmsc

#endif  // TAMSEL_SIGNAL_PIPE_H_
