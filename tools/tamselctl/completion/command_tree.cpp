#include "completion/command_tree.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>

namespace tmsc::ctl {
namespace {

// The first sentence or the part of it that says what the option is.
std::string Short(const std::string& description) {
  std::size_t end = description.size();
  for (const char* mark : {". ", "; ", " ("}) {
    end = std::min(end, description.find(mark));
  }
  return description.substr(0, end);
}

// A type that lists its values is written "table|json".
std::vector<std::string> Choices(const std::string& type_name) {
  std::vector<std::string> choices;
  const bool is_list =
      type_name.find('|') != std::string::npos &&
      type_name.find_first_not_of("abcdefghijklmnopqrstuvwxyz0123456789|") == std::string::npos;
  std::istringstream words(is_list ? type_name : "");
  for (std::string word; std::getline(words, word, '|');) {
    choices.push_back(word);
  }
  return choices;
}

CompletedOption Complete(const CLI::Option& option) {
  CompletedOption result;
  for (const std::string& name : option.get_snames()) {
    result.names.push_back("-" + name);
  }
  for (const std::string& name : option.get_lnames()) {
    result.names.push_back("--" + name);
  }
  const std::string type_name = option.get_type_name();
  result.description = Short(option.get_description());
  result.has_value = option.get_items_expected_max() > 0;
  result.choices = Choices(type_name);
  for (const char* path : {"FILE", "PATH", "DIRECTORY", "FOLDER"}) {
    result.is_file = result.is_file || type_name.find(path) != std::string::npos;
  }
  return result;
}

bool IsAny(const CLI::App* app) {
  return app != nullptr;
}

// A group of options is an app without a name below its command.
void AddOptions(const CLI::App& app, std::vector<CompletedOption>& options) {
  for (const CLI::Option* option : app.get_options()) {
    // Each group has the command's --help once more.
    if (option != app.get_help_ptr() || !app.get_name().empty() || app.get_parent() == nullptr) {
      options.push_back(Complete(*option));
    }
  }
  for (const CLI::App* group : app.get_subcommands(IsAny)) {
    if (group->get_name().empty()) {
      AddOptions(*group, options);
    }
  }
}

}  // namespace

std::vector<CompletedCommand> ReadCommandTree(const CLI::App& app) {
  std::vector<CompletedCommand> commands(1);
  AddOptions(app, commands.front().options);
  for (const CLI::App* command : app.get_subcommands(IsAny)) {
    if (!command->get_name().empty()) {
      commands.push_back({command->get_name(), command->get_description(), {}});
      AddOptions(*command, commands.back().options);
    }
  }
  return commands;
}

}  // namespace tmsc::ctl
