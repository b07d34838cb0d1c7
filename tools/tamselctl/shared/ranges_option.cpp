#include "shared/ranges_option.h"

#include <CLI/CLI.hpp>

#include "shared/address_ranges.h"
#include "shared/usage.h"

namespace tmsc::ctl {

CLI::Option* AddRanges(CLI::App& command, const std::string& name, std::vector<int>& target,
                       int least, int most, const std::string& wanted,
                       const std::string& description) {
  return command
      .add_option_function<std::string>(
          name,
          [name, &target, least, most, wanted](const std::string& text) {
            const auto numbers = ParseRanges(text, least, most);
            if (!numbers) {
              ThrowUsage(name, text + " is not " + wanted);
            }
            target = *numbers;
          },
          description)
      ->type_name("RANGES");
}

}  // namespace tmsc::ctl
