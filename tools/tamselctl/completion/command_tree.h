#ifndef TAMSELCTL_COMPLETION_COMMAND_TREE_H_
#define TAMSELCTL_COMPLETION_COMMAND_TREE_H_

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace tmsc::ctl {

/// An option or an argument without a name, as a shell needs to know it.
struct CompletedOption {
  std::vector<std::string> names;  // "-h", "--help"; empty: an argument
  std::string description;         // a few words
  bool has_value = false;
  bool is_file = false;              // the value is a path
  std::vector<std::string> choices;  // all values there are; empty: not known
};

struct CompletedCommand {
  std::string name;
  std::string description;
  std::vector<CompletedOption> options;
};

/// The program itself, without a name, and its commands, as the parser has them.
std::vector<CompletedCommand> ReadCommandTree(const CLI::App& app);

}  // namespace tmsc::ctl

#endif  // TAMSELCTL_COMPLETION_COMMAND_TREE_H_
