#ifndef TAMSELCTL_SHARED_RANGES_OPTION_H_
#define TAMSELCTL_SHARED_RANGES_OPTION_H_

#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tmsc::ctl {

/// Adds an option that takes numbers and ranges of `least` to `most`, as ParseRanges reads them,
/// into `target`, which must outlive the parse. `wanted` is what another text is said not to be.
CLI::Option* AddRanges(CLI::App& command, const std::string& name, std::vector<int>& target,
                       int least, int most, const std::string& wanted,
                       const std::string& description);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_RANGES_OPTION_H_
