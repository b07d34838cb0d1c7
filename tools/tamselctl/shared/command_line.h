#ifndef TAMSELCTL_SHARED_COMMAND_LINE_H_
#define TAMSELCTL_SHARED_COMMAND_LINE_H_

#include <optional>
#include <string>

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// What is wrong with a command line that the parser would not stop at, or not name: an empty
/// argument, or a first word that is none of the app's commands. Nothing when all is well.
std::optional<std::string> FindMistake(const CLI::App& app, int argc, char** argv);

/// What is wrong with a command line that the parser has refused: the first option that its command
/// does not have, with the nearest one. Nothing when it has them all.
std::optional<std::string> FindWrongOption(const CLI::App& app, int argc, char** argv);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_SHARED_COMMAND_LINE_H_
