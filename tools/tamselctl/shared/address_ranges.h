#ifndef TAMSELCTL_SHARED_ADDRESS_RANGES_H_
#define TAMSELCTL_SHARED_ADDRESS_RANGES_H_

#include <optional>
#include <string>
#include <vector>

namespace tmsc::ctl {

/// Numbers written one by one or as ranges, "1-5,8,20-31", in their order; nothing when `text` is
/// anything else, a number is not `least` to `most`, a range runs backwards or a number comes
/// twice.
std::optional<std::vector<int>> ParseRanges(const std::string& text, int least, int most);

/// The reverse, for sorted numbers: "1-5, 8, 20-31".
std::string RangesText(const std::vector<int>& numbers);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_ADDRESS_RANGES_H_
