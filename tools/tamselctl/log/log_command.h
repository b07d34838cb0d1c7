#ifndef TAMSELCTL_LOG_LOG_COMMAND_H_
#define TAMSELCTL_LOG_LOG_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds "log". When the parse comes to it, the command is run and what the process shall end with
/// is stored in `exit_code`, which must outlive the app's parse.
void AddLogCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_LOG_LOG_COMMAND_H_
