#ifndef TAMSELCTL_SITE_SITE_COMMAND_H_
#define TAMSELCTL_SITE_SITE_COMMAND_H_

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// Adds the subcommand that checks a site file and prints what it names. As AddRequestCommand.
void AddSiteCommand(CLI::App& app, int& exit_code);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SITE_SITE_COMMAND_H_
