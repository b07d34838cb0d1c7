#ifndef TAMSELCTL_SCAN_SCAN_OPTIONS_H_
#define TAMSELCTL_SCAN_SCAN_OPTIONS_H_

#include <optional>
#include <string>
#include <vector>

#include "shared/bus.h"
#include "shared/daemon_options.h"
#include "shared/read_options.h"

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// What the command line says about a scan.
struct ScanOptions {
  ScanOptions();

  Bus bus;
  std::string ip_address;  // of a gateway; empty: none was given
  int port = 502;
  std::vector<int> units;  // empty: the default
  ReadOptions reads;
  std::optional<int> at_once;
  DaemonOptions daemon;
  int busy_wait_ms = 5000;
  bool is_json = false;
};

/// Adds the options of the scan command; the parse leaves them in `options`, which must outlive it.
void AddScanOptions(CLI::App& command, ScanOptions& options);

/// Fills in the defaults. What does not go together is thrown as by ThrowUsage.
void CompleteScanOptions(ScanOptions& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SCAN_SCAN_OPTIONS_H_
