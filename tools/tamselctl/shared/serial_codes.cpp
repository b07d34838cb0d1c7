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

std::optional<SerialCode> Find(const std::vector<SerialCode>& codes, const std::string& name) {
  for (const SerialCode& code : codes) {
    if (name == code.name) {
      return code;
    }
  }
  return std::nullopt;
}

std::string Names(const std::vector<SerialCode>& codes) {
  std::string names;
  for (const SerialCode& code : codes) {
    names += (names.empty() ? "" : ", ") + std::string(code.name);
  }
  return names;
}

template <typename Target>
CLI::Option* AddSerialCode(CLI::App& command, const std::string& name,
                           const std::vector<SerialCode>& codes, Target& target,
                           const std::string& description) {
  return command.add_option_function<std::string>(
      name,
      [name, &codes, &target](const std::string& text) {
        const auto code = Find(codes, text);
        if (!code) {
          ThrowUsage(name, text + " is not one of " + Names(codes));
        }
        target = *code;
      },
      description);
}

}  // namespace

std::string LineText(unsigned speed_code, unsigned format_code) {
  const int speed = tamsel_baud_of_code(static_cast<int>(speed_code));
  const char* const format = tamsel_line_of_code(static_cast<int>(format_code));
  return (speed != 0 ? std::to_string(speed) : "code " + std::to_string(speed_code)) + " " +
         (format != nullptr ? format : "code " + std::to_string(format_code));
}

std::optional<SerialCode> FindSpeed(const std::string& name) {
  return Find(kSpeeds, name);
}

std::optional<SerialCode> FindLineFormat(const std::string& name) {
  return Find(kLines, name);
}

std::string SpeedNames() {
  return Names(kSpeeds);
}

std::string LineFormatNames() {
  return Names(kLines);
}

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
