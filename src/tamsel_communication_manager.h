#ifndef TAMSEL_TAMSEL_COMMUNICATION_MANAGER_H_
#define TAMSEL_TAMSEL_COMMUNICATION_MANAGER_H_

#include <Poco/Thread.h>
#include <Poco/Timer.h>

#include <atomic>
#include <chrono>
#include <memory>

#include "communication_server.h"
#include "signal_pipe.h"
#include "utility/singleton.h"
#include "watchdog/watchdog.h"

namespace tmsc {

/// Starts and stops the daemon's services and runs its main loop: passes of 500 ms that act on
/// reported power outages and recoveries.
///
/// All operations belong to the main thread, except Post, which signal handlers call.
class TamselCommunicationManager : public Singleton<TamselCommunicationManager> {
 public:
  TamselCommunicationManager();
  /// Kill, then the end of the request server.
  virtual ~TamselCommunicationManager();

  /// Starts the services and runs the main loop; returns at the end of the pass in which Kill ran.
  void Start();

  /// Ends the main loop, the watchdog and the log-flush timer. The request server goes on until the
  /// process ends.
  void Kill();

  /// Power has failed: log writes to the card end in 10 to 10.5 s.
  void NotifyOutage();
  /// Power is back: log writes begin again with the next pass.
  void NotifyOutageRecovery();

  /// Hands a signal's notification to the main loop, which runs it on its thread at once.
  /// Async-signal-safe.
  void Post(SignalNotification notification) noexcept;

 protected:
  void OnLogFlushTimer(Poco::Timer& timer);
  void PowerOffStateWork();
  void PowerOnStateWork();

 private:
  void StartServices();
  void RunPass();
  void ServeSignalsFor(std::chrono::milliseconds duration);

  std::unique_ptr<Poco::Thread> server_thread_;
  std::unique_ptr<CommunicationServer> server_;
  // Atomic, so that the operations above may also be called from another thread by users of the
  // library that have no signal handlers.
  std::atomic<bool> is_server_running_{false};
  std::unique_ptr<Poco::Timer> log_flush_timer_;
  std::unique_ptr<Watchdog> watchdog_;
  std::atomic<bool> is_outage_{false};
  bool is_power_off_state_ = false;
  std::atomic<bool> is_outage_recovery_{false};
  SignalPipe signal_pipe_;
};

}  // namespace tmsc

#endif  // TAMSEL_TAMSEL_COMMUNICATION_MANAGER_H_
