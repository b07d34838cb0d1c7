#ifndef TAMSEL_WATCHDOG_WATCHDOG_H_
#define TAMSEL_WATCHDOG_WATCHDOG_H_

#include <Poco/Event.h>
#include <Poco/Timer.h>

#include <memory>
#include <string>

namespace tmsc {

/// Time from one touch of the watchdog file to the next, as the settings say: a negative interval
/// counts as the default, one too long for the timer is cut. 0: touched once only, at the start.
long WatchdogPeriodMs();

/// Shows that the daemon is alive: touches the watchdog file 100 ms after the start and then at the
/// interval of the settings. All calls come from one thread.
class Watchdog {
 public:
  Watchdog() = default;
  /// Stops the timer; does not wait for a touch that hangs on its file system.
  virtual ~Watchdog();
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;

  /// Creates the file's directory and starts the timer. A second call does nothing.
  void StartWatchdog();
  /// Has no effect: the timer stops when the watchdog is deleted.
  void StopWatchdog();

 private:
  void onTimer(Poco::Timer& timer);
  int Touch(const std::string& path);

  Poco::Event stop_event_{Poco::Event::EVENT_MANUALRESET};
  std::unique_ptr<Poco::Timer> watchdog_timer_;
};

}  // namespace tmsc

#endif  // TAMSEL_WATCHDOG_WATCHDOG_H_
