#ifndef TAMSELCTL_REQUEST_REQUEST_COMMAND_H_
#define TAMSELCTL_REQUEST_REQUEST_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds the subcommand that sends one request through the daemon and prints the answers. It runs
/// inside app.parse() and leaves the exit status in `exit_code`, which must outlive the parse;
/// wrong usage is thrown as a CLI::ParseError.
void AddRequestCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_REQUEST_REQUEST_COMMAND_H_
