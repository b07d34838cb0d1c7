#include <CLI/CLI.hpp>

#include "exit_code.h"
#include "request_command.h"

int main(int argc, char** argv) {
  CLI::App app{"Talks to field devices through the communication daemon."};
  app.footer(tmsc::kExitCodeHelp);
  app.require_subcommand(1);
  int exit_code = tmsc::kExitOk;
  tmsc::AddRequestCommand(app, exit_code);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    // The help texts leave parse() as an error that counts as success.
    return app.exit(error) == 0 ? tmsc::kExitOk : tmsc::kExitUsage;
  }
  return exit_code;
}
