#ifndef TAMSEL_LOG_LOGGER_LOG_H_
#define TAMSEL_LOG_LOGGER_LOG_H_

#include <string>

namespace tmsc {

/// The daemon's one log. A line is "[" UTC time " UTC] [" level letter "] " tag " " message; it is
/// echoed on standard output and written to LoggerCom.log, each by a thread of its own, so that a
/// log call waits for neither console nor card. It never throws.
///
/// The level calls and Flush may come from any thread at any time: before Setup and after Shutdown
/// they do nothing. Setup and Shutdown belong to the main thread.
class LoggerLog {
 public:
  virtual ~LoggerLog() = default;

  /// Creates and configures the log from the settings manager, which must exist. Lines that other
  /// threads log meanwhile are taken.
  static void Setup();
  /// Writes what is queued and ends the log, about a second at most beside what the card takes.
  /// Waits for log calls in progress.
  static void Shutdown();

  static void Verbose(const std::string& tag, const std::string& message);
  static void Debug(const std::string& tag, const std::string& message);
  static void Info(const std::string& tag, const std::string& message);
  static void Warn(const std::string& tag, const std::string& message);
  static void Error(const std::string& tag, const std::string& message);
  static void Fatal(const std::string& tag, const std::string& message);

  /// Asks the writer to write what is queued within 500 ms and to bring it to the card. Does
  /// nothing more than log its own line when the log is not buffered.
  static void Flush();
};

}  // namespace tmsc

#endif  // TAMSEL_LOG_LOGGER_LOG_H_
