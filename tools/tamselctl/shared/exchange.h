#ifndef TAMSELCTL_SHARED_EXCHANGE_H_
#define TAMSELCTL_SHARED_EXCHANGE_H_

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "shared/bus.h"
#include "shared/daemon_options.h"
#include "shared/interruption.h"
#include "shared/progress.h"
#include "tamsel_client.h"

namespace tmsc::ctl {

/// What the daemon's health file says of one device's part in a request.
struct DeviceEnd {
  int cause = 0;   // tamsel_health_cause
  int detail = 0;  // as tamsel_health_device.last_detail
  /// From the last byte of the frame to the last of the answer, in ms; nothing without an answer.
  /// On RS485 the time of the cycle, known when the device was the only one in it.
  std::optional<double> response_ms;
  /// From the begin of the request to the end of the device's exchange, in ms; on RS485 the time of
  /// a cycle without an answer, as above.
  std::optional<long long> took_ms;
};

/// How one request came out.
struct Exchange {
  ExchangeResult result;
  long long elapsed_ms = 0;  // of the exchange with the daemon
  /// As the devices that were asked; nothing where the daemon keeps no health, or of a scan.
  std::vector<std::optional<DeviceEnd>> ends;

  /// The exit status of a request that came to no device answers; kExitOk for any other.
  int ExitCode() const;
  /// Why it came to none, for people and as a word for programs.
  std::string ErrorText() const;
  const char* OutcomeName() const;
};

/// What requests are for: those of a scan carry its mark, and the daemon's health does not count
/// them.
enum class Purpose { kDevices, kScan };

/// Sends requests to a daemon, one after the other. Main thread.
class Exchanger {
 public:
  /// `busy_wait_ms`: how long a busy channel is tried again. `deadline_ms`: of one exchange;
  /// nothing: as DeadlineMs says. Throws as SocketPath.
  Exchanger(const DaemonOptions& daemon, Purpose purpose, int busy_wait_ms,
            std::optional<int> deadline_ms, const Interruption& interruption, Progress& progress);
  ~Exchanger();

  /// One exchange, with `doing` shown as progress when it lasts. Nothing when it was interrupted,
  /// which is said on standard error. Throws as BuildRequest.
  std::optional<Exchange> Run(const Bus& bus, const std::vector<Device>& devices,
                              const std::string& doing);

  /// Whether the daemon keeps a health file that can be read, and counts these requests in it.
  bool HasHealth() const;

 private:
  class HealthProbe;

  std::optional<Exchange> RunOnce(const Bus& bus, const std::vector<Device>& devices,
                                  const Request& request, const std::string& doing);

  const std::string socket_path_;
  const Purpose purpose_;
  const int busy_wait_ms_;
  const std::optional<int> deadline_ms_;
  const Interruption& interruption_;
  Progress& progress_;
  std::unique_ptr<HealthProbe> health_;  // none: the settings name no health file, or a scan
};

/// A time of some milliseconds: "0.42 ms", "3.1 ms", "217 ms".
std::string ResponseText(double ms);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_EXCHANGE_H_
