#include "shared/serial_codes.h"

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

const std::vector<SerialCode> kSpeeds = {
    {"1200", VLM_RS485_BAUD_1200},     {"2400", VLM_RS485_BAUD_2400},
    {"4800", VLM_RS485_BAUD_4800},     {"9600", VLM_RS485_BAUD_9600},
    {"19200", VLM_RS485_BAUD_19200},   {"38400", VLM_RS485_BAUD_38400},
    {"57600", VLM_RS485_BAUD_57600},   {"115200", VLM_RS485_BAUD_115200},
    {"230400", VLM_RS485_BAUD_230400}, {"460800", VLM_RS485_BAUD_460800},
    {"921600", VLM_RS485_BAUD_921600},
};

const std::vector<SerialCode> kLines = {
    {"8N1", VLM_RS485_8N1}, {"8E1", VLM_RS485_8E1}, {"8O1", VLM_RS485_8O1}, {"8N2", VLM_RS485_8N2},
    {"8E2", VLM_RS485_8E2}, {"8O2", VLM_RS485_8O2}, {"7N1", VLM_RS485_7N1}, {"7E1", VLM_RS485_7E1},
    {"7O1", VLM_RS485_7O1}, {"7N2", VLM_RS485_7N2}, {"7E2", VLM_RS485_7E2}, {"7O2", VLM_RS485_7O2},
};

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
