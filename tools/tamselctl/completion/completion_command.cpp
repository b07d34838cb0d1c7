#include "completion/completion_command.h"

#include <CLI/CLI.hpp>
#include <iostream>
#include <memory>
#include <string>

#include "completion/command_tree.h"
#include "shared/exit_code.h"
#include "shared/usage.h"

namespace tmsc::ctl {
namespace {

constexpr const char* kExamples =
    "Examples:\n"
    "  tamselctl completion bash > /etc/bash_completion.d/tamselctl\n"
    "  tamselctl completion zsh > /usr/local/share/zsh/site-functions/_tamselctl\n"
    "  tamselctl completion fish > ~/.config/fish/completions/tamselctl.fish";

using Commands = std::vector<CompletedCommand>;

std::string Join(const std::vector<std::string>& words) {
  std::string text;
  for (const std::string& word : words) {
    text += (text.empty() ? "" : " ") + word;
  }
  return text;
}

// For text between single quotes: each of `special` with a backslash before it.
std::string Escaped(const std::string& text, const std::string& special) {
  std::string result;
  for (const char letter : text) {
    if (letter == '\'') {
      result += "'\\''";
      continue;
    }
    result += (special.find(letter) == std::string::npos ? "" : "\\") + std::string(1, letter);
  }
  return result;
}

std::string CommandNames(const Commands& commands, const char* separator) {
  std::string names;
  for (const CompletedCommand& command : commands) {
    names += (names.empty() ? "" : separator) + command.name;
  }
  return names;
}

// The words that may follow a command, and whether files may.
void PrintBashWords(std::ostream& output, const Commands& commands) {
  output << "  case $command in\n";
  for (const CompletedCommand& command : commands) {
    std::string words = command.name.empty() ? CommandNames(commands, " ") : "";
    bool has_files = false;
    for (const CompletedOption& option : command.options) {
      words += " " + Join(option.names.empty() ? option.choices : option.names);
      has_files = has_files || (option.names.empty() && option.is_file);
    }
    output << "    '" << command.name << "') words='" << words
           << "' files=" << (has_files ? "yes" : "") << " ;;\n";
  }
  output << "  esac\n";
}

void PrintBash(std::ostream& output, const Commands& commands) {
  output << "# bash completion of tamselctl\n"
            "_tamselctl() {\n"
            "  local current=${COMP_WORDS[COMP_CWORD]} last=${COMP_WORDS[COMP_CWORD-1]}\n"
            "  local command='' words='' files='' word\n"
            "  for word in \"${COMP_WORDS[@]:1:COMP_CWORD-1}\"; do\n"
            "    case $word in\n"
            "      "
         << CommandNames({commands.begin() + 1, commands.end()}, "|")
         << ") command=$word; break ;;\n"
            "    esac\n"
            "  done\n";
  PrintBashWords(output, commands);
  output << "  case \"$command $last\" in\n";
  for (const CompletedCommand& command : commands) {
    for (const CompletedOption& option : command.options) {
      for (const std::string& name : option.names) {
        if (option.has_value) {
          output << "    '" << command.name << ' ' << name << "') words='" << Join(option.choices)
                 << "' files=" << (option.is_file ? "yes" : "") << " ;;\n";
        }
      }
    }
  }
  output << "  esac\n"
            "  mapfile -t COMPREPLY < <(compgen -W \"$words\" -- \"$current\")\n"
            "  if [[ $files && $current != -* ]]; then\n"
            "    compopt -o filenames 2>/dev/null\n"
            "    mapfile -t -O ${#COMPREPLY[@]} COMPREPLY < <(compgen -f -- \"$current\")\n"
            "  fi\n"
            "}\n"
            "complete -F _tamselctl tamselctl\n";
}

std::string ZshAction(const CompletedOption& option) {
  return option.is_file           ? "_files"
         : option.choices.empty() ? " "
                                  : "(" + Join(option.choices) + ")";
}

void PrintZshOptions(std::ostream& output, const CompletedCommand& command) {
  for (const CompletedOption& option : command.options) {
    const std::string value = option.has_value ? ":value:" + ZshAction(option) : "";
    for (const std::string& name : option.names) {
      output << " \\\n        '*" << name << '[' << Escaped(option.description, "[]:\\") << ']'
             << value << '\'';
    }
    if (option.names.empty()) {
      output << " \\\n        '*:argument:" << ZshAction(option) << '\'';
    }
  }
}

void PrintZsh(std::ostream& output, const Commands& commands) {
  output << "#compdef tamselctl\n"
            "_tamselctl() {\n"
            "  local -a commands line\n"
            "  local state context\n"
            "  _arguments -C";
  PrintZshOptions(output, commands.front());
  output << " \\\n        '1:command:->command' '*::argument:->argument'\n"
            "  case $state in\n"
            "    command)\n"
            "      commands=(\n";
  for (const CompletedCommand& command : commands) {
    if (!command.name.empty()) {
      output << "        '" << command.name << ':' << Escaped(command.description, ":\\") << "'\n";
    }
  }
  output << "      )\n"
            "      _describe command commands ;;\n"
            "    argument)\n"
            "      case $line[1] in\n";
  for (const CompletedCommand& command : commands) {
    if (!command.name.empty()) {
      output << "      " << command.name << ")\n        _arguments";
      PrintZshOptions(output, command);
      output << " ;;\n";
    }
  }
  output << "      esac ;;\n"
            "  esac\n"
            "}\n"
            "if [ \"$funcstack[1]\" = _tamselctl ]; then\n"
            "  _tamselctl \"$@\"\n"
            "else\n"
            "  compdef _tamselctl tamselctl\n"
            "fi\n";
}

// What a value may be: `-x` forbids files, `-F` allows them.
std::string FishValue(const CompletedOption& option) {
  const std::string choices = option.choices.empty() ? "" : " -a '" + Join(option.choices) + "'";
  return (option.is_file ? " -r -F" : option.has_value ? " -x" : "") + choices;
}

void PrintFish(std::ostream& output, const Commands& commands) {
  output << "# fish completion of tamselctl\n"
            "complete -c tamselctl -f\n";
  for (const CompletedCommand& command : commands) {
    const std::string condition = command.name.empty()
                                      ? "__fish_use_subcommand"
                                      : "__fish_seen_subcommand_from " + command.name;
    const std::string line = "complete -c tamselctl -n '" + condition + "'";
    if (!command.name.empty()) {
      output << "complete -c tamselctl -n __fish_use_subcommand -a " << command.name << " -d '"
             << Escaped(command.description, "\\") << "'\n";
    }
    for (const CompletedOption& option : command.options) {
      for (const std::string& name : option.names) {
        const bool is_long = name.compare(0, 2, "--") == 0;
        output << line << (is_long ? " -l " : " -s ") << name.substr(is_long ? 2 : 1)
               << FishValue(option) << " -d '" << Escaped(option.description, "\\") << "'\n";
      }
      if (option.names.empty() && option.is_file) {
        output << line << " -F\n";
      } else if (option.names.empty() && !option.choices.empty()) {
        output << line << " -a '" << Join(option.choices) << "'\n";
      }
    }
  }
}

}  // namespace

void AddCompletionCommand(CLI::App& app, int& exit_code) {
  const auto shell = std::make_shared<std::string>();
  CLI::App& command =
      *app.add_subcommand("completion", "Print the completion of this program for a shell");
  command.footer(kExamples);
  command.add_option("shell", *shell, "bash, zsh or fish")->type_name("bash|zsh|fish")->required();
  command.callback([shell, &app, &exit_code] {
    if (*shell != "bash" && *shell != "zsh" && *shell != "fish") {
      ThrowUsage("shell", *shell + " is not one of bash, zsh, fish");
    }
    const Commands commands = ReadCommandTree(app);
    (*shell == "bash" ? PrintBash : *shell == "zsh" ? PrintZsh : PrintFish)(std::cout, commands);
    exit_code = kExitOk;
  });
}

}  // namespace tmsc::ctl
