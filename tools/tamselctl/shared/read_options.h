#ifndef TAMSELCTL_SHARED_READ_OPTIONS_H_
#define TAMSELCTL_SHARED_READ_OPTIONS_H_

#include <optional>
#include <string>

#include "communication_common.h"

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// What is read of a device, as it stands on the command line; empty: not given.
struct ReadOptions {
  std::string holding;
  std::string input;
  std::string coils;
  std::string discrete;
};

/// Adds --read-holding, --read-input, --read-coils and --read-discrete; the parse leaves them in
/// `options`, which must outlive it.
void AddReadOptions(CLI::App& command, ReadOptions& options);

struct Read {
  byte function = 0;  // of Modbus
  int start = 0;
  int count = 0;  // registers or bits
};

/// The first of the options that is given; nothing when none is. What cannot be read is thrown as
/// by ThrowUsage.
std::optional<Read> ParseRead(const ReadOptions& options);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_READ_OPTIONS_H_
