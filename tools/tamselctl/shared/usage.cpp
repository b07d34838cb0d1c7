#include "shared/usage.h"

#include <CLI/CLI.hpp>

namespace tmsc::ctl {

void ThrowUsage(const std::string& option, const std::string& message) {
  throw CLI::ValidationError(option, message);
}

}  // namespace tmsc::ctl
