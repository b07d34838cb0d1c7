#include "shared/serial_codes.h"

#include <CLI/CLI.hpp>
#include <iterator>
#include <string>
#include <vector>

#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

const std::vector<SerialCode> kSpeeds(std::begin(kSerialSpeeds), std::end(kSerialSpeeds));
const std::vector<SerialCode> kLines(std::begin(kSerialLines), std::end(kSerialLines));

template <typename Target>
CLI::Option* AddSerialCode(CLI::App& command, const std::string& name,
                           const std::vector<SerialCode>& codes, Target& target,
                           const std::string& description) {
  return command.add_option_function<std::string>(
      name,
      [name, &codes, &target](const std::string& text) {
        std::string names;
        for (const SerialCode& code : codes) {
          if (text == code.name) {
            target = code;
            return;
          }
          names += (names.empty() ? "" : ", ") + std::string(code.name);
        }
        ThrowUsage(name, text + " is not one of " + names);
      },
      description);
}

}  // namespace

CLI::Option* AddLineOptions(CLI::App& command, const char* baud_description,
                            std::optional<SerialCode>& baud, SerialCode& line) {
  CLI::Option* speed =
      AddSerialCode(command, "--baud", kSpeeds, baud, baud_description)->type_name("SPEED");
  AddSerialCode(
      command, "--line", kLines, line,
      std::string("RS485: data bits, parity and stop bits (default: ") + kDefaultLine.name + ")")
      ->type_name("FORMAT")
      ->needs(speed);
  return speed;
}

}  // namespace tmsc::ctl
