#ifndef TAMSELCTL_COMPLETION_COMPLETION_COMMAND_H_
#define TAMSELCTL_COMPLETION_COMPLETION_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds the subcommand that prints a shell's completion of all commands of `app`, those that are
/// added later included. As AddRequestCommand.
void AddCompletionCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_COMPLETION_COMPLETION_COMMAND_H_
