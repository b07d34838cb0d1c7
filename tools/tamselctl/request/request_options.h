#ifndef TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_
#define TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "shared/bus.h"
#include "shared/daemon_options.h"
#include "shared/read_options.h"
#include "shared/value_type.h"

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// What the command line says about a request.
struct Options {
  Bus bus;
  std::vector<std::string> devices;
  std::vector<int> units;  // empty: each device's address
  bool is_broadcast = false;

  // What to send: exactly one of these is given.
  std::vector<std::string> frames;
  ReadOptions reads;
  std::string write_registers;
  std::string write_coil;
  std::string write_coils;
  bool has_crc = false;
  std::optional<ValueType> type;
  WordOrder word_order = WordOrder::kBig;

  // In place of all that: names of devices in a site file.
  std::string site;
  std::vector<std::string> names;
  std::vector<std::string> registers;  // empty: all of each device

  DaemonOptions daemon;
  std::optional<int> deadline_ms;
  int busy_wait_ms = 0;
  bool is_json = false;
  std::optional<std::int64_t> watch_ms;
  std::optional<int> count;
};

/// Adds the options of the request command; the parse leaves them in `options`, which must outlive
/// it.
void AddRequestOptions(CLI::App& command, Options& options);

/// Throws as ThrowUsage when an option was given that a site file stands for.
void CheckSiteOptions(const CLI::App& command);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_OPTIONS_H_
