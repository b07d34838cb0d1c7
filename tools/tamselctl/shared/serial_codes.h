#ifndef TAMSELCTL_SHARED_SERIAL_CODES_H_
#define TAMSELCTL_SHARED_SERIAL_CODES_H_

#include <optional>
#include <string>

#include "communication_common.h"
#include "serial_line_codes.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tmsc::ctl {

/// The format of a line unless --line says otherwise.
constexpr SerialCode kDefaultLine = {"8N1", VLM_RS485_8N1};

/// The speed and the format of a line by their codes, "19200 8E1"; a code that has no name as
/// "code 17".
std::string LineText(unsigned speed_code, unsigned format_code);
/// The code of a speed, "19200", or of a format, "8E1"; nothing for a text that is none.
std::optional<SerialCode> FindSpeed(const std::string& name);
std::optional<SerialCode> FindLineFormat(const std::string& name);
/// The names that they know, with commas between, for messages.
std::string SpeedNames();
std::string LineFormatNames();

/// Adds --baud and --line, which needs --baud; the parse leaves them in the targets, which must
/// outlive it. `baud_description` says what follows from a speed. Returns --baud.
CLI::Option* AddLineOptions(CLI::App& command, const char* baud_description,
                            std::optional<SerialCode>& baud, SerialCode& line);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_SERIAL_CODES_H_
