#include "shared/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <vector>

#include "shared/nearest_word.h"

namespace tmsc::ctl {
namespace {

constexpr std::size_t kMostTypingErrors = 2;

std::string DidYouMean(const std::string& word, const std::vector<std::string>& names) {
  const std::string nearest = NearestWord(word, names, kMostTypingErrors);
  return nearest.empty() ? "" : "; did you mean " + nearest + "?";
}

std::optional<std::string> FindWrongCommand(const CLI::App& app, const std::string& word) {
  std::vector<std::string> names;
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    names.push_back(command->get_name());
  }
  if (std::find(names.begin(), names.end(), word) != names.end()) {
    return std::nullopt;
  }
  return word + " is no command" + DidYouMean(word, names);
}

/// "--channel" and so on, those of the command's groups among them.
std::vector<std::string> OptionNames(const CLI::App& command) {
  std::vector<std::string> names;
  for (const CLI::Option* option : command.get_options()) {
    for (const std::string& name : option->get_lnames()) {
      names.push_back("--" + name);
    }
  }
  for (const CLI::App* group : command.get_subcommands([](const CLI::App*) { return true; })) {
    const std::vector<std::string> more = OptionNames(*group);
    names.insert(names.end(), more.begin(), more.end());
  }
  return names;
}

bool IsOption(const CLI::App& command, const std::string& word) {
  const bool is_long = word[1] == '-';
  return command.get_option_no_throw(is_long ? word.substr(0, word.find('='))
                                             : word.substr(0, 2)) != nullptr;
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

std::optional<std::string> FindWrongOption(const CLI::App& app, int argc, char** argv) {
  // Options stand behind their command, which is the first word.
  const bool has_command = argc > 1 && *argv[1] != '-';
  const CLI::App& command = has_command ? *app.get_subcommand(argv[1]) : app;
  for (int index = has_command ? 2 : 1; index < argc; ++index) {
    const std::string word = argv[index];
    if (word == "--") {
      break;
    }
    const bool is_named =
        word.size() > 1 && word[0] == '-' && std::strchr("0123456789.", word[1]) == nullptr;
    if (is_named && !IsOption(command, word)) {
      return word + " is no option" + (has_command ? " of " + command.get_name() : "") +
             DidYouMean(word.substr(0, word.find('=')), OptionNames(command));
    }
  }
  return std::nullopt;
}

}  // namespace tmsc::ctl
