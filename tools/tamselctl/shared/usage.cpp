#include "shared/usage.h"

#include <CLI/CLI.hpp>
#include <iostream>

#include "shared/exit_code.h"
#include "shared/printable.h"

namespace tmsc::ctl {

void ThrowUsage(const std::string& option, const std::string& message) {
  throw CLI::ValidationError(option, message);
}

void ThrowFailure(const std::string& message) {
  std::cerr << "tamselctl: " << Printable(message) << '\n';
  throw CLI::RuntimeError(kExitFailed);
}

}  // namespace tmsc::ctl
