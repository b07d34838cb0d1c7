#include "shared/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <vector>

#include "shared/nearest_word.h"

namespace tmsc::ctl {
namespace {

std::optional<std::string> FindWrongCommand(const CLI::App& app, const std::string& word) {
  constexpr std::size_t kMostTypingErrors = 2;
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  if (std::find(names.begin(), names.end(), word) != names.end()) {
    return std::nullopt;
  }
  const std::string nearest = NearestWord(word, names, kMostTypingErrors);
  return word + " is no command" + (nearest.empty() ? "" : "; did you mean " + nearest + "?");
}

}  // namespace

std::optional<std::string> FindMistake(const CLI::App& app, int argc, char** argv) {
  for (int index = 1; index < argc; ++index) {
    if (*argv[index] == '\0') {
      return "the argument behind " + std::string(index == 1 ? "tamselctl" : argv[index - 1]) +
             " is empty";
    }
  }
  return argc > 1 && *argv[1] != '-' ? FindWrongCommand(app, argv[1]) : std::nullopt;
}

}  // namespace tmsc::ctl
