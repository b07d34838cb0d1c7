#include "shared/command_line.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstddef>
#include <numeric>
#include <vector>

namespace tmsc::ctl {
namespace {

// Characters to insert, remove or replace until one word is the other.
std::size_t EditDistance(const std::string& from, const std::string& to) {
  std::vector<std::size_t> distances(to.size() + 1);
  std::iota(distances.begin(), distances.end(), std::size_t{0});
  for (const char letter : from) {
    std::size_t diagonal = distances[0]++;
    for (std::size_t index = 0; index < to.size(); ++index) {
      const std::size_t replaced = diagonal + (letter == to[index] ? 0 : 1);
      diagonal = distances[index + 1];
      distances[index + 1] = std::min({replaced, diagonal + 1, distances[index] + 1});
    }
  }
  return distances.back();
}

std::optional<std::string> FindWrongCommand(const CLI::App& app, const std::string& word) {
  constexpr std::size_t kMostTypingErrors = 2;
  std::string nearest;
  std::size_t least = std::min(kMostTypingErrors + 1, word.size());
  for (const CLI::App* command : app.get_subcommands([](const CLI::App*) { return true; })) {
    const std::size_t distance = EditDistance(word, command->get_name());
    if (distance == 0) {
      return std::nullopt;
    }
    if (distance < least) {
      least = distance;
      nearest = command->get_name();
    }
  }
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
