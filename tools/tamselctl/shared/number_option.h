#ifndef TAMSELCTL_SHARED_NUMBER_OPTION_H_
#define TAMSELCTL_SHARED_NUMBER_OPTION_H_

#include <CLI/CLI.hpp>
#include <string>

#include "shared/arguments.h"
#include "shared/usage.h"

namespace tmsc::ctl {

/// Adds an option that takes a number of `least` to `most`, both 0 or more, into `target`, an
/// integer or an optional one. The parser itself would take a leading zero for octal; here a number
/// is decimal, or hexadecimal after 0x.
template <typename Target>
CLI::Option* AddNumber(CLI::App& command, const std::string& name, Target& target, int least,
                       int most, const std::string& description) {
  return command
      .add_option_function<std::string>(
          name,
          [name, &target, least, most](const std::string& text) {
            const auto number = ParseNumber(text, least, most);
            if (!number) {
              ThrowUsage(name, text + " is not a number of " + std::to_string(least) + " to " +
                                   std::to_string(most));
            }
            target = *number;
          },
          description)
      ->type_name("NUMBER");
}

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_NUMBER_OPTION_H_
