#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <csignal>
#include <iostream>

#include "completion/completion_command.h"
#include "health/health_command.h"
#include "log/log_command.h"
#include "request/request_command.h"
#include "scan/scan_command.h"
#include "settings/settings_command.h"
#include "shared/command_line.h"
#include "shared/exit_code.h"
#include "shared/printable.h"
#include "shared/standard_streams.h"
#include "site/site_command.h"

namespace tmsc::ctl {
namespace {

constexpr void (*kAddCommands[])(CLI::App& app, int& exit_code) = {
    AddHealthCommand, AddLogCommand,  AddRequestCommand,    AddSettingsCommand,
    AddScanCommand,   AddSiteCommand, AddCompletionCommand,
};

int RefuseUsage(const std::string& mistake) {
  std::cerr << "tamselctl: " << Printable(mistake) << "\nRun with --help for more information.\n";
  return kExitUsage;
}

/// Whether standard output is a pipe that nobody reads any more, as behind `| head`.
bool HasReaderLeft() {
  pollfd output{STDOUT_FILENO, 0, 0};
  return ::poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

int Run(int argc, char** argv) {
  CLI::App app{"Talks to field devices through the communication daemon."};
  app.footer(kExitCodeHelp);
  app.set_version_flag("--version", "tamselctl " TAMSEL_VERSION, "Print the version and end");
  app.require_subcommand(1);
  int exit_code = kExitOk;
  for (const auto add_command : kAddCommands) {
    add_command(app, exit_code);
  }
  if (const auto mistake = FindMistake(app, argc, argv)) {
    return RefuseUsage(*mistake);
  }
  try {
    app.parse(argc, argv);
  } catch (const CLI::RuntimeError& failure) {
    return failure.get_exit_code();
  } catch (const CLI::Success& help) {
    return app.exit(help);
  } catch (const CLI::ParseError& error) {
    // What stands behind a wrong option may have been taken for something else.
    return RefuseUsage(FindWrongOption(app, argc, argv).value_or(error.what()));
  }
  return exit_code;
}

}  // namespace
}  // namespace tmsc::ctl

int main(int argc, char** argv) {
  tmsc::ctl::OccupyStandardStreams();
  // An output pipe that nobody reads is an output that failed, no reason to be killed.
  std::signal(SIGPIPE, SIG_IGN);
  const int exit_code = tmsc::ctl::Run(argc, argv);
  if (!std::cout.flush()) {
    if (!tmsc::ctl::HasReaderLeft()) {
      std::cerr << "tamselctl: standard output could not be written\n";
    }
    return tmsc::ctl::kExitOutputFailed;
  }
  return exit_code;
}
