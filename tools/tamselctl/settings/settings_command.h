#ifndef TAMSELCTL_SETTINGS_SETTINGS_COMMAND_H_
#define TAMSELCTL_SETTINGS_SETTINGS_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds "settings". When the parse comes to it, the command is run and what the process shall end
/// with is stored in `exit_code`, which must outlive the app's parse.
void AddSettingsCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SETTINGS_SETTINGS_COMMAND_H_
