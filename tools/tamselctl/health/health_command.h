#ifndef TAMSELCTL_HEALTH_HEALTH_COMMAND_H_
#define TAMSELCTL_HEALTH_HEALTH_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds the subcommand that shows what the daemon's health file holds. It runs inside app.parse()
/// and leaves the exit status in `exit_code`, which must outlive the parse; wrong usage is thrown
/// as a CLI::ParseError.
void AddHealthCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_HEALTH_HEALTH_COMMAND_H_
