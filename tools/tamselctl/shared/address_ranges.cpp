#include "shared/address_ranges.h"

#include <algorithm>
#include <cstddef>
#include <sstream>

#include "shared/arguments.h"

namespace tmsc::ctl {

std::optional<std::vector<int>> ParseRanges(const std::string& text, int least, int most) {
  std::vector<int> numbers;
  std::istringstream parts(text + ",");
  for (std::string part; std::getline(parts, part, ',');) {
    const std::size_t dash = part.find('-');
    const auto first = ParseNumber(part.substr(0, dash), least, most);
    const auto last =
        dash == std::string::npos ? first : ParseNumber(part.substr(dash + 1), least, most);
    if (!first || !last || *last < *first) {
      return std::nullopt;
    }
    for (int number = *first; number <= *last; ++number) {
      if (std::find(numbers.begin(), numbers.end(), number) != numbers.end()) {
        return std::nullopt;
      }
      numbers.push_back(number);
    }
  }
  return numbers;
}

std::string RangesText(const std::vector<int>& numbers) {
  std::string text;
  for (std::size_t first = 0, last = 0; first < numbers.size(); first = last + 1) {
    last = first;
    while (last + 1 < numbers.size() && numbers[last + 1] == numbers[last] + 1) {
      ++last;
    }
    text += (text.empty() ? "" : ", ") + std::to_string(numbers[first]);
    if (last > first) {
      text += (last > first + 1 ? "-" : ", ") + std::to_string(numbers[last]);
    }
  }
  return text;
}

}  // namespace tmsc::ctl
