#ifndef TAMSELCTL_SCAN_SCAN_COMMAND_H_
#define TAMSELCTL_SCAN_SCAN_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds the subcommand that finds out which addresses of a bus or units of a gateway answer. As
/// AddRequestCommand.
void AddScanCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SCAN_SCAN_COMMAND_H_
