#ifndef TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_
#define TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "shared/arguments.h"
#include "shared/daemon_options.h"
#include "shared/serial_codes.h"

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// What the command line says about a request.
struct Options {
  int channel = 0;
  std::vector<std::string> devices;
  std::vector<std::string> frames;  // empty: one of the next three is given
  std::string read_holding;
  std::string read_input;
  std::string write_registers;
  std::optional<int> unit;
  int timeout_ms = 1000;
  std::optional<int> deadline_ms;
  DaemonOptions daemon;
  int busy_wait_ms = 0;
  std::string format = "table";

  // Of an RS485 request; they come only together with a speed.
  std::optional<SerialCode> baud;
  SerialCode line = kDefaultLine;
  int silence_ms = 0;
  std::optional<Delimiter> delimiter;  // none: an answer ends with silence
  int wait_ms = 0;
  bool has_crc = false;
  bool is_broadcast = false;

  bool IsRs485() const { return baud.has_value(); }
};

/// Adds the options of the request command; the parse leaves them in `options`, which must outlive
/// it.
void AddRequestOptions(CLI::App& command, Options& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_
