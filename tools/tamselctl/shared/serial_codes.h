#ifndef TAMSELCTL_SHARED_SERIAL_CODES_H_
#define TAMSELCTL_SHARED_SERIAL_CODES_H_

#include <optional>

#include "communication_common.h"
#include "serial_line_codes.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

namespace tmsc::ctl {

/// The format of a line unless --line says otherwise.
constexpr SerialCode kDefaultLine = {"8N1", VLM_RS485_8N1};

/// Adds --baud and --line, which needs --baud; the parse leaves them in the targets, which must
/// outlive it. `baud_description` says what follows from a speed. Returns --baud.
CLI::Option* AddLineOptions(CLI::App& command, const char* baud_description,
                            std::optional<SerialCode>& baud, SerialCode& line);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_SERIAL_CODES_H_
