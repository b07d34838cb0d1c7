#ifndef TAMSELCTL_SHARED_USAGE_H_
#define TAMSELCTL_SHARED_USAGE_H_

#include <string>

namespace tmsc::ctl {

/// Ends the parse with what is wrong with an option.
[[noreturn]] void ThrowUsage(const std::string& option, const std::string& message);

/// Says what is wrong with something else than the command line, and ends the command with
/// kExitFailed.
[[noreturn]] void ThrowFailure(const std::string& message);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_USAGE_H_
